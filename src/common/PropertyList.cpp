#include "common/PropertyList.h"

#include <cmath>

#include "common/AtomicFile.h"
#include "common/PlistCodec.h"

namespace kd {

namespace plist {

using Ticks = PlistDate::duration;
static_assert(Ticks::period::num == 1, "the clock ticks in fractions of a second");
constexpr long long kTicksPerSecond = Ticks::period::den;

double sinceReference(PlistDate date) {
  long long ticks = date.time_since_epoch().count();
  long long seconds = ticks / kTicksPerSecond, rest = ticks % kTicksPerSecond;
  if (rest < 0) {
    rest += kTicksPerSecond;
    --seconds;
  }
  return static_cast<double>(seconds - kReferenceSince1970) +
         static_cast<double>(rest) / static_cast<double>(kTicksPerSecond);
}

PlistValue dateValue(double since) {
  // Whole seconds and the fraction are converted apart (both exactly), and the
  // result is kept only if it converts back to the very same double.
  if (std::isfinite(since) && std::fabs(since) < 1e12) {
    const double whole = std::floor(since);
    const long long fraction = std::llround((since - whole) * static_cast<double>(kTicksPerSecond));
    long long ticks = 0;
    if (!__builtin_mul_overflow(static_cast<long long>(whole) + kReferenceSince1970,
                                kTicksPerSecond, &ticks) &&
        !__builtin_add_overflow(ticks, fraction, &ticks)) {
      PlistDate date{Ticks(ticks)};
      if (sinceReference(date) == since) return date;
    }
  }
  return PlistStoredDate{since};
}

Result<std::string> write(const PlistDict& root, PlistFormat format) {
  return format == PlistFormat::Binary ? writeBinary(root) : writeXml(root);
}

Result<void> writeFile(const PlistDict& root, const std::string& path, PlistFormat format,
                       const std::optional<FileOwner>& owner) {
  Result<std::string> bytes = write(root, format);
  if (!bytes) return bytes.error().within("cannot write " + path);
  return writeFileAtomically(path, *bytes, owner);
}

}  // namespace plist

PlistFile parsePlist(std::string_view bytes) {
  PlistFile file;
  file.status = PlistReadStatus::Damaged;
  if (bytes.empty()) {
    file.reason = "an empty file";
    return file;
  }
  const bool binary = bytes.starts_with("bplist");
  if (binary) file.format = PlistFormat::Binary;
  Result<PlistValue> root = binary ? plist::readBinary(bytes) : plist::readXml(bytes);
  if (!root) {
    file.reason = root.error().message();
    return file;
  }
  PlistDict* dict = root->get<PlistDict>();
  if (!dict) {
    file.reason = "the root is not a dictionary";
    return file;
  }
  file.dict = std::move(*dict);
  file.status = PlistReadStatus::Ok;
  return file;
}

PlistFile readPlistFile(const std::string& path, bool followLinks) {
  // Settings files are never refused for their size below this.
  constexpr std::size_t kReadLimit = std::size_t{1} << 30;
  Result<std::string, ReadError> read = readRegularFile(path, kReadLimit, followLinks);
  if (!read) {
    PlistFile file;
    file.status = read.error().kind == ReadFailure::Missing ? PlistReadStatus::Missing
                                                            : PlistReadStatus::Unreadable;
    file.reason = read.error().error.message();
    return file;
  }
  return parsePlist(*read);
}

std::optional<std::string> serializePlist(const PlistDict& dict, PlistFormat format,
                                          std::string* error) {
  Result<std::string> out = plist::write(dict, format);
  if (!out) {
    if (error) *error = out.error().message();
    return std::nullopt;
  }
  return std::move(out).toOptional();
}

bool writePlistFileAtomically(const PlistDict& dict, const std::string& path, PlistFormat format,
                              std::string* error, const std::optional<FileOwner>& owner) {
  Result<void> written = plist::writeFile(dict, path, format, owner);
  if (!written && error) *error = written.error().message();
  return written.ok();
}

bool writePlistDictionaryAtomically(const PlistDict& dict, const std::string& path,
                                    std::string* error, const std::optional<FileOwner>& owner) {
  return writePlistFileAtomically(dict, path, PlistFormat::Xml, error, owner);
}

std::optional<PlistDict> readPlistDictionary(const std::string& path) {
  PlistFile file = readPlistFile(path);
  if (file.status != PlistReadStatus::Ok) return std::nullopt;
  return std::move(file.dict);
}

PlistDict readPlistDictionaryOrEmpty(const std::string& path) {
  auto dict = readPlistDictionary(path);
  return dict ? std::move(*dict) : PlistDict{};
}

std::optional<PlistDict> parsePlistDictionary(const std::string& bytes) {
  PlistFile file = parsePlist(bytes);
  if (file.status != PlistReadStatus::Ok) return std::nullopt;
  return std::move(file.dict);
}

std::string plistDictionaryToXml(const PlistDict& dict) {
  return serializePlist(dict, PlistFormat::Xml).value_or(std::string());
}

bool plistFlagIsSet(const PlistDict& dict, const std::string& key) {
  auto it = dict.find(key);
  if (it == dict.end()) return false;
  const PlistValue& v = it->second;
  if (auto s = v.get<std::string>()) return *s == "1";
  if (auto b = v.get<bool>()) return *b;
  if (auto i = v.get<std::int64_t>()) return *i == 1;
  if (auto d = v.get<double>()) return *d == 1.0;
  return false;
}

std::optional<PlistDate> plistDate(const PlistDict& dict, const std::string& key) {
  auto it = dict.find(key);
  if (it == dict.end()) return std::nullopt;
  if (auto d = it->second.get<PlistDate>()) return *d;
  if (auto s = it->second.get<PlistStoredDate>()) {
    // Within the clock's range (about 1678-2261), to the nearest tick.
    const double ticks =
        std::round((s->sinceReference + plist::kReferenceSince1970) * plist::kTicksPerSecond);
    if (std::fabs(ticks) < 9.2e18) return PlistDate(plist::Ticks(static_cast<long long>(ticks)));
  }
  return std::nullopt;
}

}  // namespace kd
