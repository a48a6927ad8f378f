// Property lists: the dictionaries of settings files and preferences.
//
// `PlistValue` is a plain value type (copyable, no shared state); reading and
// writing use libplist. Files are read as XML or binary; they are written as
// XML atomically. Callable from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "common/FileOwner.h"

namespace kd {

class PlistValue;
using PlistDict = std::map<std::string, PlistValue>;
using PlistArray = std::vector<PlistValue>;
using PlistDate = std::chrono::system_clock::time_point;
struct PlistData {
  std::vector<std::uint8_t> bytes;
  bool operator==(const PlistData&) const = default;
};

class PlistValue {
 public:
  using Storage = std::variant<std::string, std::int64_t, double, bool, PlistDate, PlistData,
                               PlistArray, PlistDict>;

  PlistValue() : v_(std::string()) {}
  PlistValue(std::string s) : v_(std::move(s)) {}
  PlistValue(const char* s) : v_(std::string(s)) {}
  PlistValue(std::int64_t i) : v_(i) {}
  PlistValue(int i) : v_(static_cast<std::int64_t>(i)) {}
  PlistValue(double d) : v_(d) {}
  PlistValue(bool b) : v_(b) {}
  PlistValue(PlistDate d) : v_(d) {}
  PlistValue(PlistData d) : v_(std::move(d)) {}
  PlistValue(PlistArray a) : v_(std::move(a)) {}
  PlistValue(PlistDict d) : v_(std::move(d)) {}

  template <class T>
  bool is() const {
    return std::holds_alternative<T>(v_);
  }
  template <class T>
  const T* get() const {
    return std::get_if<T>(&v_);
  }
  template <class T>
  T* get() {
    return std::get_if<T>(&v_);
  }
  const Storage& storage() const { return v_; }
  bool operator==(const PlistValue& other) const { return v_ == other.v_; }

 private:
  Storage v_;
};

// The dictionary at the root of a property-list file (XML or binary); none when
// the file is missing, unreadable, malformed or not a dictionary at its root.
std::optional<PlistDict> readPlistDictionary(const std::string& path);
// As above with an empty dictionary for "none".
PlistDict readPlistDictionaryOrEmpty(const std::string& path);
// Parses a property list held in memory; none as above.
std::optional<PlistDict> parsePlistDictionary(const std::string& bytes);

// Writes the dictionary as an XML property list: a temporary file in the same
// folder, fsync, rename, fsync of the folder. On failure the old file stays
// as it was and `error` (when given) receives the reason.
bool writePlistDictionaryAtomically(const PlistDict& dict, const std::string& path,
                                    std::string* error = nullptr,
                                    const std::optional<FileOwner>& owner = std::nullopt);
// The XML text of a dictionary.
std::string plistDictionaryToXml(const PlistDict& dict);

// A maker-wide switch such as "disable-logging": set when the value is the
// string "1" or a number equal to 1 (the boolean true, 1 and 1.0 included).
bool plistFlagIsSet(const PlistDict& dict, const std::string& key);

// A date value of the dictionary, if the key holds one.
std::optional<PlistDate> plistDate(const PlistDict& dict, const std::string& key);

}  // namespace kd
