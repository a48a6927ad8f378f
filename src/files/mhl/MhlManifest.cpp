// The manifest and chain files of a history: read through the shared XML
// reader and written as text strict XML 1.0 readers accept.
#include "files/mhl/MhlManifest.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <set>
#include <tuple>

#include "common/DateText.h"
#include "common/Utf8.h"
#include "common/XmlReader.h"
#include "common/XmlText.h"
#include "files/KdDigestContext.h"
#include "files/mhl/MhlShared.h"

namespace kd {

using mhl::hashKey;
using mhl::kMaxChainBytes;
using mhl::kMaxManifestBytes;
using mhl::shown;

namespace mhl {

// Key of a file and format, for duplicates and the latest hashes.
std::string hashKey(std::string_view format, std::string_view path) {
  std::string key(format);
  key.push_back('\0');
  key.append(path);
  return key;
}

}  // namespace mhl

namespace {

constexpr std::string_view kManifestNs = "urn:ASC:MHL:v2.0";
constexpr std::string_view kChainNs = "urn:ASC:MHL:DIRECTORY:v2.0";

// Bounds on what is read (the file sizes are in MhlShared.h).
constexpr std::size_t kMaxGenerations = 100000;
constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMaxAttributes = 64;
constexpr std::size_t kMaxText = std::size_t{64} << 10;  // one path, name or digest
constexpr std::size_t kMaxFileName = 255;
constexpr std::size_t kMaxPath = 16384;

// The formats in the order a <hash> element holds them.
constexpr std::array<std::string_view, 6> kFormats = {"c4",     "md5",  "sha1",
                                                      "xxh128", "xxh3", "xxh64"};

int formatRank(std::string_view format) {
  for (std::size_t i = 0; i < kFormats.size(); ++i)
    if (kFormats[i] == format) return static_cast<int>(i);
  return -1;
}

std::size_t hexLength(std::string_view format) {
  if (format == "xxh64" || format == "xxh3") return 16;
  if (format == "xxh128" || format == "md5") return 32;
  if (format == "sha1") return 40;
  return 0;
}

constexpr std::string_view kBase58 = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";

using xml::trimmed;

// A digest in its normal form (hex in lowercase), or nullopt when it is not
// one of `format`.
std::optional<std::string> normalDigest(std::string_view format, std::string_view text) {
  text = trimmed(text);
  if (format == "c4") {
    if (text.size() != 90 || !text.starts_with("c4")) return std::nullopt;
    for (char c : text.substr(2))
      if (kBase58.find(c) == std::string_view::npos) return std::nullopt;
    return std::string(text);
  }
  const std::size_t length = hexLength(format);
  if (length == 0 || text.size() != length) return std::nullopt;
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
  }
  return out;
}

// A path relative to the tracked folder: no leading '/', no empty, "." or ".."
// part.
bool isRelativePath(std::string_view path) {
  if (path.empty() || path.size() > kMaxPath) return false;
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = path.find('/', start);
    const std::string_view part = path.substr(
        start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
    if (part.empty() || part == "." || part == "..") return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

// A plain file name in the ascmhl folder.
bool isPlainFileName(std::string_view name) {
  return !name.empty() && name.size() <= kMaxFileName && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

// ---- Dates: xs:dateTime ---------------------------------------------------

// Seconds the clock's time points can hold either side of 1970 (with room).
constexpr long long kClockRange = 9000000000LL;

// An xs:dateTime the clock can hold.
std::optional<std::chrono::system_clock::time_point> parseDateTime(std::string_view text) {
  const std::optional<long long> seconds = xml::dateTimeSeconds(text);
  if (!seconds || *seconds < -kClockRange || *seconds > kClockRange) return std::nullopt;
  return std::chrono::system_clock::time_point(std::chrono::seconds(*seconds));
}

long long wholeSeconds(std::chrono::system_clock::time_point t) {
  return std::chrono::floor<std::chrono::seconds>(t.time_since_epoch()).count();
}

// "YYYY-MM-DDTHH:MM:SS+00:00".
std::string formatDateTime(std::chrono::system_clock::time_point t) {
  const CivilTime c = civilFromSeconds(wholeSeconds(t));
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02u:%02u:%02u+00:00", c.year, c.month, c.day,
                c.hour, c.minute, c.second);
  return buf;
}

// ---- Reading ----------------------------------------------------------------

xml::Limits readerLimits() {
  xml::Limits limits;
  limits.maxBytes = kMaxManifestBytes;
  limits.maxDepth = kMaxDepth;
  limits.maxAttributes = kMaxAttributes;
  limits.maxText = kMaxText;
  return limits;
}

class ManifestReader {
 public:
  ManifestReader(std::string_view bytes, MhlManifest& out) : x_(bytes, readerLimits()), out_(out) {}

  bool read(std::string& error) {
    if (!document()) {
      error = x_.error().empty() ? "malformed manifest" : x_.error();
      return false;
    }
    return true;
  }

 private:
  using Event = xml::PullReader::Event;

  bool fail(const std::string& why) { return x_.fail(why); }

  bool document() {
    out_ = MhlManifest{};
    Event event;
    if (!x_.next(event)) return false;
    if (x_.ns() != kManifestNs || x_.localName() != "hashlist")
      return fail("not an ASC MHL manifest (no <hashlist> of " + std::string(kManifestNs) + ")");
    const xml::PullReader::Attribute* version = x_.attribute("version");
    if (!version || trimmed(version->value) != "2.0") return fail("not version 2.0 of ASC MHL");
    bool creator = false, process = false;
    for (;;) {
      if (!x_.next(event)) return false;
      if (event == Event::End) break;
      const std::string_view name = x_.localName();
      if (x_.ns() == kManifestNs && name == "creatorinfo") {
        if (creator || !creatorInfo()) return creator ? fail("a second <creatorinfo>") : false;
        creator = true;
      } else if (x_.ns() == kManifestNs && name == "processinfo") {
        if (process || !processInfo()) return process ? fail("a second <processinfo>") : false;
        process = true;
      } else if (x_.ns() == kManifestNs && name == "hashes") {
        if (!hashes()) return false;
      } else if (!x_.skipElement()) {
        return false;
      }
    }
    if (!x_.next(event)) return false;
    if (!creator) return fail("no <creatorinfo>");
    if (!process) return fail("no <processinfo>");
    return true;
  }

  // The children of the element just started, each handed to `child` (which
  // reads or skips it) when it is of the manifest's namespace, else skipped.
  template <class F>
  bool children(F&& child) {
    Event event;
    for (;;) {
      if (!x_.next(event)) return false;
      if (event == Event::End) return true;
      if (x_.ns() != kManifestNs) {
        if (!x_.skipElement()) return false;
      } else if (!child(x_.localName())) {
        return false;
      }
    }
  }

  bool creatorInfo() {
    bool date = false;
    bool ok = children([&](std::string_view name) {
      std::string text;
      if (name == "creationdate") {
        if (!x_.readText(text)) return false;
        auto when = parseDateTime(text);
        if (!when) return fail("a malformed <creationdate>");
        out_.creator.creationDate = *when;
        date = true;
      } else if (name == "hostname") {
        return x_.readText(out_.creator.hostname);
      } else if (name == "tool") {
        if (const xml::PullReader::Attribute* v = x_.attribute("version"))
          out_.creator.toolVersion = v->value;
        return x_.readText(out_.creator.tool);
      } else {
        return x_.skipElement();
      }
      return true;
    });
    return ok && (date || fail("no <creationdate> in <creatorinfo>"));
  }

  bool processInfo() {
    bool process = false, rootHash = false;
    const bool ok = children([&](std::string_view name) {
      if (name == "process") {
        if (process) return fail("a second <process>");
        process = true;
        if (!x_.readText(out_.process)) return false;
        out_.process = std::string(trimmed(out_.process));
        if (out_.process != "in-place" && out_.process != "transfer" && out_.process != "flatten")
          return fail("an unknown <process>");
        return true;
      }
      if (name == "roothash" && !rootHash) {
        rootHash = true;
        return directoryHash(nullptr);
      }
      if (name == "ignore") {
        return children([&](std::string_view inner) {
          if (inner != "pattern") return x_.skipElement();
          std::string pattern;
          if (!x_.readText(pattern)) return false;
          out_.ignorePatterns.push_back(std::move(pattern));
          return true;
        });
      }
      return x_.skipElement();
    });
    return ok && (process || fail("no <process> in <processinfo>"));
  }

  bool hashes() {
    return children([&](std::string_view name) {
      if (name == "directoryhash") {
        MhlDirectoryHash folder;
        if (!directoryHash(&folder)) return false;
        if (isRelativePath(folder.path))
          out_.directoryHashes.directories.push_back(std::move(folder));
        return true;
      }
      if (name != "hash") return x_.skipElement();
      return hash();
    });
  }

  // A <directoryhash> (into `folder`) or the <roothash> (no path; into the
  // manifest's root hash). Digests that are malformed, of a format given
  // twice or of an unknown format are left out.
  bool directoryHash(MhlDirectoryHash* folder) {
    bool havePath = false;
    std::vector<MhlDirectoryDigest> digests;
    const bool ok = children([&](std::string_view name) {
      if (folder && name == "path") {
        if (havePath) return fail("a second <path> in <directoryhash>");
        havePath = true;
        if (const xml::PullReader::Attribute* modified = x_.attribute("lastmodificationdate")) {
          folder->modified = parseDateTime(modified->value);
          if (!folder->modified) return fail("a malformed lastmodificationdate");
        }
        return x_.readText(folder->path);
      }
      if (name != "content" && name != "structure") return x_.skipElement();
      const bool content = name == "content";
      return children([&](std::string_view format) {
        if (formatRank(format) < 0) return x_.skipElement();
        std::string text;
        if (!x_.readText(text)) return false;
        const std::optional<std::string> digest = normalDigest(format, text);
        if (!digest) return true;
        auto it = std::find_if(digests.begin(), digests.end(),
                               [&](const MhlDirectoryDigest& d) { return d.format == format; });
        if (it == digests.end()) it = digests.insert(digests.end(), {std::string(format), "", ""});
        std::string& slot = content ? it->content : it->structure;
        if (slot.empty()) slot = *digest;
        return true;
      });
    });
    if (!ok) return false;
    if (folder && !havePath) return fail("a <directoryhash> without its <path>");
    std::stable_sort(digests.begin(), digests.end(),
                     [](const MhlDirectoryDigest& a, const MhlDirectoryDigest& b) {
                       return formatRank(a.format) < formatRank(b.format);
                     });
    (folder ? folder->digests : out_.directoryHashes.root) = std::move(digests);
    return true;
  }

  bool hash() {
    bool havePath = false;
    MhlHash file;
    bool ok = children([&](std::string_view name) {
      if (name == "path") {
        if (havePath) return fail("a second <path> in <hash>");
        havePath = true;
        if (const xml::PullReader::Attribute* size = x_.attribute("size")) {
          const std::string_view digits = trimmed(size->value);
          std::uint64_t bytes = 0;
          auto [stop, ec] =
              std::from_chars(digits.data(), digits.data() + digits.size(), bytes, 10);
          if (digits.empty() || ec != std::errc() || stop != digits.data() + digits.size())
            return fail("a malformed size");
          file.size = bytes;
        }
        if (const xml::PullReader::Attribute* modified = x_.attribute("lastmodificationdate")) {
          file.modified = parseDateTime(modified->value);
          if (!file.modified) return fail("a malformed lastmodificationdate");
        }
        if (!x_.readText(file.path)) return false;
        if (!isRelativePath(file.path))
          return fail("a path that is not relative to the folder: \"" + shown(file.path) + "\"");
        return true;
      }
      if (formatRank(name) < 0) return x_.skipElement();
      if (!havePath) return fail("a hash before its <path>");
      MhlHash entry = file;
      entry.format = std::string(name);
      if (const xml::PullReader::Attribute* action = x_.attribute("action")) {
        const std::optional<MhlAction> named = mhlActionNamed(action->value);
        if (!named) return fail("an unknown action \"" + shown(action->value) + "\"");
        entry.action = *named;
      }
      if (const xml::PullReader::Attribute* date = x_.attribute("hashdate")) {
        entry.hashDate = parseDateTime(date->value);
        if (!entry.hashDate) return fail("a malformed hashdate");
      }
      std::string text;
      if (!x_.readText(text)) return false;
      auto digest = normalDigest(entry.format, text);
      if (!digest) return fail("a malformed " + entry.format + " digest");
      entry.digest = std::move(*digest);
      if (!seen_.insert(hashKey(entry.format, entry.path)).second)
        return fail("\"" + shown(entry.path) + "\" listed twice with " + entry.format);
      out_.hashes.push_back(std::move(entry));
      return true;
    });
    if (!ok) return false;
    if (!havePath) return fail("a <hash> without its <path>");
    return true;
  }

  xml::PullReader x_;
  MhlManifest& out_;
  std::set<std::string> seen_;
};

class ChainReader {
 public:
  ChainReader(std::string_view bytes, std::vector<MhlChainEntry>& out)
      : x_(bytes, readerLimits()), out_(out) {}

  bool read(std::string& error) {
    if (!document()) {
      error = x_.error().empty() ? "malformed chain" : x_.error();
      return false;
    }
    return true;
  }

 private:
  using Event = xml::PullReader::Event;

  bool fail(const std::string& why) { return x_.fail(why); }

  bool document() {
    out_.clear();
    Event event;
    if (!x_.next(event)) return false;
    if (x_.ns() != kChainNs || x_.localName() != "ascmhldirectory")
      return fail("not an ASC MHL chain (no <ascmhldirectory> of " + std::string(kChainNs) + ")");
    for (;;) {
      if (!x_.next(event)) return false;
      if (event == Event::End) break;
      if (x_.ns() != kChainNs || x_.localName() != "hashlist") {
        if (!x_.skipElement()) return false;
      } else if (!entry()) {
        return false;
      }
    }
    if (!x_.next(event)) return false;
    if (out_.empty()) return fail("a chain that lists no generation");
    return true;
  }

  bool entry() {
    if (out_.size() >= kMaxGenerations)
      return fail("more than " + std::to_string(kMaxGenerations) + " generations");
    MhlChainEntry e;
    const xml::PullReader::Attribute* sequence = x_.attribute("sequencenr");
    const std::string_view digits = sequence ? trimmed(sequence->value) : std::string_view();
    auto [stop, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), e.sequence, 10);
    if (digits.empty() || ec != std::errc() || stop != digits.data() + digits.size())
      return fail("a generation without its sequence number");
    if (e.sequence != static_cast<int>(out_.size()) + 1)
      return fail("generation " + std::to_string(e.sequence) + " where " +
                  std::to_string(out_.size() + 1) + " should be");
    bool havePath = false, haveC4 = false;
    Event event;
    for (;;) {
      if (!x_.next(event)) return false;
      if (event == Event::End) break;
      const std::string_view name = x_.localName();
      if (x_.ns() == kChainNs && name == "path") {
        if (havePath) return fail("a second <path> in a generation");
        if (!x_.readText(e.file)) return false;
        if (!isPlainFileName(e.file))
          return fail("a manifest that is not a file of the folder: \"" + shown(e.file) + "\"");
        havePath = true;
      } else if (x_.ns() == kChainNs && name == "c4") {
        if (haveC4) return fail("a second <c4> in a generation");
        std::string text;
        if (!x_.readText(text)) return false;
        auto c4 = normalDigest("c4", text);
        if (!c4) return fail("a malformed C4 ID");
        e.c4 = std::move(*c4);
        haveC4 = true;
      } else if (!x_.skipElement()) {
        return false;
      }
    }
    if (!havePath || !haveC4) return fail("a generation without its <path> and <c4>");
    if (!files_.insert(e.file).second) return fail("\"" + shown(e.file) + "\" listed twice");
    out_.push_back(std::move(e));
    return true;
  }

  xml::PullReader x_;
  std::vector<MhlChainEntry>& out_;
  std::set<std::string> files_;
};

// ---- Writing ---------------------------------------------------------------

// The <content> and <structure> of a directory or root hash, each indented by
// `indent`; the reason when a digest cannot be written.
std::optional<std::string> appendDirectoryDigests(std::string& out,
                                                  const std::vector<MhlDirectoryDigest>& digests,
                                                  const std::string& indent) {
  std::vector<const MhlDirectoryDigest*> sorted;
  for (const MhlDirectoryDigest& d : digests) {
    if (!isMhlHashFormat(d.format))
      return "a hash format ASC MHL does not define: \"" + shown(d.format) + "\"";
    for (const MhlDirectoryDigest* other : sorted)
      if (other->format == d.format) return "a directory hash given twice with " + d.format;
    sorted.push_back(&d);
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const MhlDirectoryDigest* a, const MhlDirectoryDigest* b) {
                     return formatRank(a->format) < formatRank(b->format);
                   });
  for (const bool content : {true, false}) {
    const char* element = content ? "content" : "structure";
    out += indent + "<" + element + ">\n";
    for (const MhlDirectoryDigest* d : sorted) {
      const std::string& text = content ? d->content : d->structure;
      if (text.empty()) continue;
      const std::optional<std::string> digest = normalDigest(d->format, text);
      if (!digest) return "a malformed " + d->format + " directory hash";
      out += indent + "  <" + d->format + ">" + *digest + "</" + d->format + ">\n";
    }
    out += indent + "</" + element + ">\n";
  }
  return std::nullopt;
}

// The <references> of a generation: the manifests of the histories inside
// that it covers.
std::optional<std::string> appendReferences(std::string& out,
                                            const std::vector<MhlReference>& references) {
  if (references.empty()) return std::nullopt;
  out += "  <references>\n";
  for (const MhlReference& r : references) {
    const std::optional<std::string> c4 = normalDigest("c4", r.c4);
    if (!isRelativePath(r.path) || !c4) return "a malformed reference to \"" + shown(r.path) + "\"";
    out += "    <hashlistreference>\n      <path>";
    if (!xml::appendEscaped(out, r.path))
      return "a reference with a character XML cannot carry: \"" + shown(r.path) + "\"";
    out += "</path>\n      <c4>" + *c4 + "</c4>\n    </hashlistreference>\n";
  }
  out += "  </references>\n";
  return std::nullopt;
}

}  // namespace

std::string_view mhlActionText(MhlAction action) {
  switch (action) {
    case MhlAction::Original:
      return "original";
    case MhlAction::Verified:
      return "verified";
    case MhlAction::Failed:
      return "failed";
    case MhlAction::None:
      break;
  }
  return "";
}

std::optional<MhlAction> mhlActionNamed(std::string_view text) {
  for (MhlAction action : {MhlAction::Original, MhlAction::Verified, MhlAction::Failed})
    if (text == mhlActionText(action)) return action;
  return std::nullopt;
}

bool isMhlHashFormat(std::string_view format) {
  return formatRank(format) >= 0;
}

std::string mhlC4Id(std::string_view bytes) {
  KdSHA512Context context;
  context.update(bytes.data(), bytes.size());
  auto digest = context.digest();
  std::array<unsigned char, 64> number{};
  if (digest) std::copy_n(digest->bytes.begin(), number.size(), number.begin());
  // Base 58 by long division of the 512-bit big-endian number, least
  // significant digit first; 88 digits hold any 512-bit number.
  std::string digits(88, '1');
  for (std::size_t d = 0; d < digits.size(); ++d) {
    unsigned remainder = 0;
    for (unsigned char& byte : number) {
      const unsigned value = remainder * 256 + byte;
      byte = static_cast<unsigned char>(value / 58);
      remainder = value % 58;
    }
    digits[digits.size() - 1 - d] = kBase58[remainder];
  }
  return "c4" + digits;
}

bool parseMhlManifest(std::string_view bytes, MhlManifest& out, std::string& error) {
  return ManifestReader(bytes, out).read(error);
}

bool parseMhlChain(std::string_view bytes, std::vector<MhlChainEntry>& out, std::string& error) {
  return ChainReader(bytes, out).read(error);
}

std::optional<std::string> writeMhlManifest(const MhlManifest& m, std::string& error) {
  auto refuse = [&](std::string why) -> std::optional<std::string> {
    error = std::move(why);
    return std::nullopt;
  };
  if (m.process != "in-place" && m.process != "transfer" && m.process != "flatten")
    return refuse("an unknown process \"" + shown(m.process) + "\"");
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\">\n"
      "  <creatorinfo>\n"
      "    <creationdate>" +
      formatDateTime(m.creator.creationDate) + "</creationdate>\n    <hostname>";
  if (!xml::appendEscaped(out, m.creator.hostname))
    return refuse("a host name XML cannot carry: \"" + shown(m.creator.hostname) + "\"");
  out += "</hostname>\n    <tool";
  if (!m.creator.toolVersion.empty()) {
    out += " version=\"";
    if (!xml::appendEscaped(out, m.creator.toolVersion, xml::Escape::Attribute))
      return refuse("a tool version XML cannot carry");
    out += "\"";
  }
  out += ">";
  if (!xml::appendEscaped(out, m.creator.tool)) return refuse("a tool name XML cannot carry");
  out += "</tool>\n  </creatorinfo>\n  <processinfo>\n    <process>" + m.process + "</process>\n";
  if (!m.directoryHashes.root.empty()) {
    out += "    <roothash>\n";
    if (std::optional<std::string> why =
            appendDirectoryDigests(out, m.directoryHashes.root, "      "))
      return refuse(*why + " in the root hash");
    out += "    </roothash>\n";
  }
  if (!m.ignorePatterns.empty()) {
    out += "    <ignore>\n";
    for (const std::string& pattern : m.ignorePatterns) {
      out += "      <pattern>";
      if (!xml::appendEscaped(out, pattern))
        return refuse("an ignore pattern XML cannot carry: \"" + shown(pattern) + "\"");
      out += "</pattern>\n";
    }
    out += "    </ignore>\n";
  }
  out += "  </processinfo>\n";
  const bool anyHashes = !m.hashes.empty() || !m.directoryHashes.directories.empty();
  if (anyHashes) out += "  <hashes>\n";
  std::set<std::string> seen;
  // Consecutive entries of one file (path, size and date) share a <hash>, their
  // formats in the order the element holds them.
  for (std::size_t i = 0; i < m.hashes.size();) {
    const MhlHash& file = m.hashes[i];
    std::size_t end = i + 1;
    while (end < m.hashes.size() && m.hashes[end].path == file.path &&
           m.hashes[end].size == file.size && m.hashes[end].modified == file.modified)
      ++end;
    std::vector<const MhlHash*> group;
    for (std::size_t j = i; j < end; ++j) group.push_back(&m.hashes[j]);
    std::stable_sort(group.begin(), group.end(), [](const MhlHash* a, const MhlHash* b) {
      return formatRank(a->format) < formatRank(b->format);
    });
    if (!isRelativePath(file.path))
      return refuse("a path that is not relative to the folder: \"" + shown(file.path) + "\"");
    out += "    <hash>\n      <path";
    if (file.size) out += " size=\"" + std::to_string(*file.size) + "\"";
    if (file.modified) out += " lastmodificationdate=\"" + formatDateTime(*file.modified) + "\"";
    out += ">";
    if (!xml::appendEscaped(out, file.path))
      return refuse("a path with a character XML cannot carry: \"" + shown(file.path) + "\"");
    out += "</path>\n";
    for (const MhlHash* h : group) {
      if (!isMhlHashFormat(h->format))
        return refuse("a hash format ASC MHL does not define: \"" + shown(h->format) + "\"");
      auto digest = normalDigest(h->format, h->digest);
      if (!digest)
        return refuse("a malformed " + h->format + " digest for \"" + shown(h->path) + "\"");
      if (!seen.insert(hashKey(h->format, h->path)).second)
        return refuse("\"" + shown(h->path) + "\" given twice with " + h->format);
      out += "      <" + h->format;
      if (h->action != MhlAction::None)
        out += " action=\"" + std::string(mhlActionText(h->action)) + "\"";
      if (h->hashDate) out += " hashdate=\"" + formatDateTime(*h->hashDate) + "\"";
      out += ">" + *digest + "</" + h->format + ">\n";
    }
    out += "    </hash>\n";
    i = end;
  }
  // The folders' hashes after the files they cover.
  for (const MhlDirectoryHash& folder : m.directoryHashes.directories) {
    if (!isRelativePath(folder.path))
      return refuse("a folder path that is not relative to the tracked folder: \"" +
                    shown(folder.path) + "\"");
    out += "    <directoryhash>\n      <path";
    if (folder.modified)
      out += " lastmodificationdate=\"" + formatDateTime(*folder.modified) + "\"";
    out += ">";
    if (!xml::appendEscaped(out, folder.path))
      return refuse("a folder path with a character XML cannot carry: \"" + shown(folder.path) +
                    "\"");
    out += "</path>\n";
    if (std::optional<std::string> why = appendDirectoryDigests(out, folder.digests, "      "))
      return refuse(*why + " for \"" + shown(folder.path) + "\"");
    out += "    </directoryhash>\n";
  }
  if (anyHashes) out += "  </hashes>\n";
  if (std::optional<std::string> why = appendReferences(out, m.references)) return refuse(*why);
  out += "</hashlist>\n";
  return out;
}

std::optional<std::string> writeMhlChain(const std::vector<MhlChainEntry>& chain,
                                         std::string& error) {
  if (chain.empty()) {
    error = "a chain needs a generation";
    return std::nullopt;
  }
  std::string out =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">\n";
  for (std::size_t i = 0; i < chain.size(); ++i) {
    const MhlChainEntry& e = chain[i];
    auto c4 = normalDigest("c4", e.c4);
    if (e.sequence != static_cast<int>(i) + 1 || !isPlainFileName(e.file) || !c4) {
      error = "a malformed chain entry for \"" + shown(e.file) + "\"";
      return std::nullopt;
    }
    out += "  <hashlist sequencenr=\"" + std::to_string(e.sequence) + "\">\n    <path>";
    if (!xml::appendEscaped(out, e.file)) {
      error = "a manifest name XML cannot carry: \"" + shown(e.file) + "\"";
      return std::nullopt;
    }
    out += "</path>\n    <c4>" + *c4 + "</c4>\n  </hashlist>\n";
  }
  out += "</ascmhldirectory>\n";
  return out;
}

}  // namespace kd
