// Property lists: the dictionaries of settings files and preferences.
//
// Files are read in the XML and the binary ("bplist00") form and written in
// either. The readers are our own: they never abort, never recurse without a
// bound, refuse nesting deeper than kPlistMaxDepth, and give back every value
// with its exact type and range (64-bit signed and unsigned integers, dates far
// from 1970, strings with NUL bytes), so that a dictionary read and written
// back in the same form keeps what it held. Functions are stateless and
// callable from any thread.
#pragma once

#include "../KdExport.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "FileOwner.h"

namespace kd {

// Containers nested deeper than this are refused by the readers and the
// writers, so recursion over any value that came from a file stays shallow.
inline constexpr std::size_t kPlistMaxDepth = 512;

class PlistValue;
using PlistDict = std::map<std::string, PlistValue>;
using PlistArray = std::vector<PlistValue>;
using PlistDate = std::chrono::system_clock::time_point;
struct KD_EXPORT PlistData {
  std::vector<std::uint8_t> bytes;
  bool operator==(const PlistData&) const = default;
};
// A date that PlistDate cannot hold exactly (before 1678, after 2261, such as
// the usual "distant past" and "distant future", or finer than the clock's
// tick), kept as the files store it: seconds since 2001-01-01 00:00:00 UTC.
struct KD_EXPORT PlistStoredDate {
  double sinceReference = 0;
  bool operator==(const PlistStoredDate&) const = default;
};

// One value of a property list. A plain value: copyable, owns its children,
// no shared state; distinct values may be used on different threads at once.
// Integers that fit std::int64_t are held as std::int64_t; only larger
// unsigned ones as std::uint64_t.
class KD_EXPORT PlistValue {
 public:
  using Storage = std::variant<std::string, std::int64_t, std::uint64_t, double, bool, PlistDate,
                               PlistStoredDate, PlistData, PlistArray, PlistDict>;

  PlistValue() : v_(std::string()) {}
  PlistValue(std::string s) : v_(std::move(s)) {}
  PlistValue(const char* s) : v_(std::string(s)) {}
  PlistValue(std::int64_t i) : v_(i) {}
  PlistValue(std::uint64_t u) {
    if (u <= static_cast<std::uint64_t>(INT64_MAX))
      v_ = static_cast<std::int64_t>(u);
    else
      v_ = u;
  }
  PlistValue(int i) : v_(static_cast<std::int64_t>(i)) {}
  PlistValue(double d) : v_(d) {}
  PlistValue(bool b) : v_(b) {}
  PlistValue(PlistDate d) : v_(d) {}
  PlistValue(PlistStoredDate d) : v_(d) {}
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

enum class PlistFormat { Xml, Binary };

enum class PlistReadStatus {
  Ok,
  Missing,     // nothing at the path
  Unreadable,  // something is there but cannot be read (permissions, I/O, not a regular file)
  Damaged,     // read, but not a property list with a dictionary at its root
};

struct KD_EXPORT PlistFile {
  PlistReadStatus status = PlistReadStatus::Missing;
  PlistDict dict;                         // when Ok
  PlistFormat format = PlistFormat::Xml;  // the form of the bytes read
  std::string reason;                     // why, when not Ok
};

// Reads a property-list file. Only a regular file is read; a named pipe or a
// device never blocks. With `followLinks` false a link at `path` is refused.
KD_EXPORT PlistFile readPlistFile(const std::string& path, bool followLinks = true);
// Parses bytes held in memory: Ok or Damaged.
KD_EXPORT PlistFile parsePlist(std::string_view bytes);

// The bytes of a dictionary in the given form; none (and `error`) when the
// dictionary cannot be written in that form: nesting deeper than
// kPlistMaxDepth, text that is not UTF-8, and for XML a character that XML 1.0
// cannot carry (NUL and the control characters other than tab, line feed and
// carriage return) or a date outside the years 0-9999. The binary form holds
// every value the readers give back.
KD_EXPORT std::optional<std::string> serializePlist(const PlistDict& dict, PlistFormat format,
                                                    std::string* error = nullptr);

// Writes the dictionary: a temporary file in the same folder, fsync, rename,
// fsync of the folder; with `owner` the file belongs to that user before it
// takes its name. On failure the old file stays as it was and `error` (when
// given) receives the reason.
KD_EXPORT bool writePlistFileAtomically(const PlistDict& dict, const std::string& path,
                                        PlistFormat format, std::string* error = nullptr,
                                        const std::optional<FileOwner>& owner = std::nullopt);
// As above in the XML form.
KD_EXPORT bool writePlistDictionaryAtomically(const PlistDict& dict, const std::string& path,
                                              std::string* error = nullptr,
                                              const std::optional<FileOwner>& owner = std::nullopt);

// The dictionary at the root of a property-list file (XML or binary); none when
// the file is missing, unreadable, damaged or not a dictionary at its root.
KD_EXPORT std::optional<PlistDict> readPlistDictionary(const std::string& path);
// As above with an empty dictionary for "none".
KD_EXPORT PlistDict readPlistDictionaryOrEmpty(const std::string& path);
// Parses a property list held in memory; none as above.
KD_EXPORT std::optional<PlistDict> parsePlistDictionary(const std::string& bytes);

// The XML text of a dictionary; empty when it cannot be written as XML (see
// serializePlist).
KD_EXPORT std::string plistDictionaryToXml(const PlistDict& dict);

// A maker-wide switch such as "disable-logging": set when the value is the
// string "1" or a number equal to 1 (the boolean true, 1 and 1.0 included).
KD_EXPORT bool plistFlagIsSet(const PlistDict& dict, const std::string& key);

// A date value of the dictionary, if the key holds one that PlistDate can hold
// (a stored date to the nearest tick).
KD_EXPORT std::optional<PlistDate> plistDate(const PlistDict& dict, const std::string& key);

}  // namespace kd
