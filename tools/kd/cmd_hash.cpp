// kd hash: prints the digests of files as checksum lists that the coreutils
// checkers and xxhsum accept, and checks such lists.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Commands.h"
#include "common/UniqueFd.h"
#include "files/HashKinds.h"
#include "files/KdFileManager.h"
#include "files/copy/FileDigest.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"

namespace {

constexpr std::uint64_t kProgressStep = 52428800;  // a progress line every 50 MiB
constexpr std::uint64_t kProgressFrom = 2 * kProgressStep;

// The digest kinds: kd's name for each, the tag the BSD-style lists
// ("SHA256 (FILE) = DIGEST") and xxhsum give it, and its length in hex.
struct Kind {
  const char* name;
  const char* tag;
  std::size_t hexLength;
};
constexpr Kind kKinds[] = {{"md5", "MD5", 32},       {"sha1", "SHA1", 40},
                           {"sha256", "SHA256", 64}, {"sha512", "SHA512", 128},
                           {"xxh64", "XXH64", 16},   {"xxh3", "XXH3", 16},
                           {"xxh128", "XXH128", 32}};

const Kind* kindNamed(std::string_view name) {
  for (const Kind& k : kKinds)
    if (name == k.name || name == k.tag) return &k;
  return nullptr;
}

// The progress line on standard error for large files, on a terminal.
// Single-threaded: the digest loop reports from the command's thread.
class Progress {
 public:
  explicit Progress(bool enabled) : enabled_(enabled) {}

  void begin(const std::string& name, std::uint64_t size) {
    shown_ = enabled_ && size >= kProgressFrom;
    name_ = name;
    size_ = size;
    drawn_ = false;
  }
  void at(std::uint64_t done) {
    if (!shown_ || done / kProgressStep == last_ / kProgressStep) {
      last_ = done;
      return;
    }
    last_ = done;
    drawn_ = true;
    std::fprintf(stderr, "\r\033[Khashing %s: %llu of %llu MB (%d%%)", name_.c_str(),
                 static_cast<unsigned long long>(done >> 20),
                 static_cast<unsigned long long>(size_ >> 20),
                 static_cast<int>(size_ ? done * 100 / size_ : 100));
    std::fflush(stderr);
  }
  void end() {
    if (drawn_) std::fputs("\r\033[K", stderr);
    drawn_ = false;
    last_ = 0;
  }

 private:
  const bool enabled_;
  bool shown_ = false, drawn_ = false;
  std::string name_;
  std::uint64_t size_ = 0, last_ = 0;
};

// The digests of a file ("-": standard input) in each kind, from one read,
// or nothing after a message on standard error that says why.
std::optional<std::vector<std::string>> digestsOfFile(const std::vector<const Kind*>& kinds,
                                                      const std::string& path, Progress& progress) {
  kd::UniqueFd opened;
  int fd = STDIN_FILENO;
  if (path != "-") {
    opened =
        kd::UniqueFd(kd::retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
    if (!opened) {
      std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(), std::strerror(errno));
      return std::nullopt;
    }
    fd = opened.get();
  }
  struct stat st {};
  if (::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode)) {
    std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(), std::strerror(EISDIR));
    return std::nullopt;
  }
  std::vector<KdFileManager::CopyDigest> digests;
  for (const Kind* kind : kinds)
    digests.push_back(KdFileManager::copyDigestNamed(kind->name)
                          .value_or(KdFileManager::CopyDigest{kind->name, nullptr}));
  progress.begin(path, S_ISREG(st.st_mode) ? static_cast<std::uint64_t>(st.st_size) : 0);
  std::uint64_t total = 0;
  kd::copy::DigestFailure failure;
  std::optional<std::vector<std::string>> texts = kd::copy::digestsOfFile(
      fd, kd::copy::Reading::Ahead, digests,
      [&](std::uint64_t length) {
        total += length;
        progress.at(total);
        return true;
      },
      failure);
  progress.end();
  if (texts) return texts;
  switch (failure.what) {
    case kd::copy::DigestFailure::What::Unavailable:
      std::fprintf(stderr, "kd hash: %s: the %s digest is not available\n", path.c_str(),
                   failure.kind.c_str());
      break;
    case kd::copy::DigestFailure::What::NoMemory:
    case kd::copy::DigestFailure::What::Read:
      std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(),
                   std::strerror(failure.error != 0 ? failure.error : EIO));
      break;
    case kd::copy::DigestFailure::What::Stopped:
    case kd::copy::DigestFailure::What::Final:
      std::fprintf(stderr, "kd hash: %s: the digest failed\n", path.c_str());
      break;
  }
  return std::nullopt;
}

std::optional<std::string> digestOfFile(const Kind& kind, const std::string& path,
                                        Progress& progress) {
  std::optional<std::vector<std::string>> digests = digestsOfFile({&kind}, path, progress);
  if (!digests) return std::nullopt;
  return std::move(digests->front());
}

// A file name as the checkers write it: with "\\", "\n" and "\r" escaped, in
// which case the line starts with a backslash.
bool needsEscape(const std::string& name) {
  return name.find_first_of("\\\n\r") != std::string::npos;
}
std::string escaped(const std::string& name) {
  std::string out;
  for (char c : name) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}
std::optional<std::string> unescaped(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return std::nullopt;
    switch (text[i]) {
      case '\\':
        out += '\\';
        break;
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      default:
        return std::nullopt;
    }
  }
  return out;
}

// Digests go to the data stream (kd's standard output); the library's
// messages go to standard error (see Output.h), so they never mix with the
// list.
class ListOutput {
 public:
  ListOutput() = default;
  ~ListOutput() {
    // The log's writer thread may still print about the lines it was given.
    KdLog::finishWriting();
    std::cout.flush();
  }
  ListOutput(const ListOutput&) = delete;
  ListOutput& operator=(const ListOutput&) = delete;

  void line(const std::string& name, const std::string& text) {
    if (needsEscape(name))
      std::cout << '\\' << escaped(name) << text << '\n';
    else
      std::cout << name << text << '\n';
  }
  // "DIGEST  NAME", or with `tag` "KIND (NAME) = DIGEST"; a leading backslash
  // when the name is escaped.
  void digestLine(const Kind& kind, const std::string& digest, const std::string& name, bool tag) {
    const bool esc = needsEscape(name);
    const std::string shown = esc ? escaped(name) : name;
    if (tag)
      std::cout << (esc ? "\\" : "") << kind.tag << " (" << shown << ") = " << digest << '\n';
    else
      std::cout << (esc ? "\\" : "") << digest << "  " << shown << '\n';
  }
  bool flush() { return static_cast<bool>(std::cout.flush()); }
};

struct ListEntry {
  std::string digest;
  std::string name;
  const Kind* kind = nullptr;  // set by a tagged line
};

bool allHex(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
  });
}

// One line of a checksum list: "DIGEST  NAME", "DIGEST *NAME" or
// "KIND (NAME) = DIGEST", with a leading backslash when the name is escaped.
std::optional<ListEntry> parseLine(std::string line) {
  bool esc = false;
  if (!line.empty() && line[0] == '\\') {
    esc = true;
    line.erase(0, 1);
  }
  ListEntry entry;
  const std::size_t open = line.find(" (");
  const std::size_t close = line.rfind(") = ");
  if (open != std::string::npos && close != std::string::npos && close > open &&
      allHex(line.substr(close + 4))) {
    entry.kind = kindNamed(line.substr(0, open));
    if (!entry.kind) return std::nullopt;
    entry.name = line.substr(open + 2, close - open - 2);
    entry.digest = line.substr(close + 4);
  } else {
    std::size_t hex = 0;
    while (hex < line.size() && std::isxdigit(static_cast<unsigned char>(line[hex]))) ++hex;
    if (hex == 0 || hex + 2 > line.size() || line[hex] != ' ' ||
        (line[hex + 1] != ' ' && line[hex + 1] != '*'))
      return std::nullopt;
    entry.digest = line.substr(0, hex);
    entry.name = line.substr(hex + 2);
  }
  for (char& c : entry.digest) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (esc) {
    std::optional<std::string> name = unescaped(entry.name);
    if (!name) return std::nullopt;
    entry.name = *name;
  }
  // A NUL would make the name a different, shorter one.
  if (entry.name.empty() || entry.name.find('\0') != std::string::npos) return std::nullopt;
  return entry;
}

bool endsWith(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// The kind of an untagged line, told by its length: 16 hex digits are xxh64
// and 32 are MD5, unless the list's name says xxh3 or xxh128 (as xxhsum's
// lists are named).
const Kind* kindForLength(std::size_t length, const std::string& listFile) {
  if (length == 16) return kindNamed(endsWith(listFile, ".xxh3") ? "xxh3" : "xxh64");
  if (length == 32) return kindNamed(endsWith(listFile, ".xxh128") ? "xxh128" : "md5");
  for (const Kind& k : kKinds)
    if (k.hexLength == length) return &k;
  return nullptr;
}

// One line per file and kind, the kinds of a file together in the order
// given.
int hashFiles(const std::vector<const Kind*>& kinds, const std::vector<std::string>& files,
              bool tag, Progress& progress) {
  ListOutput output;
  int status = 0;
  for (const std::string& file : files) {
    if (const std::optional<std::vector<std::string>> digests =
            digestsOfFile(kinds, file, progress)) {
      for (std::size_t k = 0; k < kinds.size(); ++k)
        output.digestLine(*kinds[k], (*digests)[k], file, tag);
    } else {
      status = 1;
    }
  }
  if (!output.flush()) status = 1;
  return status;
}

int checkList(const Kind* named, const std::string& listFile, Progress& progress) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (listFile != "-") {
    file.open(listFile);
    if (!file) {
      std::fprintf(stderr, "kd hash: %s: %s\n", listFile.c_str(), std::strerror(errno));
      return 1;
    }
    in = &file;
  }
  ListOutput output;
  unsigned mismatched = 0, unreadable = 0, malformed = 0, checked = 0, lineNumber = 0;
  bool guessed = false;  // a line of 16 or 32 digits that failed as xxh64 or MD5
  for (std::string line; std::getline(*in, line);) {
    ++lineNumber;
    if (!line.empty() && line.back() == '\r') line.pop_back();  // a list from Windows
    if (line.empty()) continue;
    std::optional<ListEntry> entry = parseLine(line);
    const Kind* kind = !entry        ? nullptr
                       : entry->kind ? entry->kind
                       : named       ? named
                                     : kindForLength(entry->digest.size(), listFile);
    if (!entry || !kind || entry->digest.size() != kind->hexLength ||
        (named && entry->kind && named != entry->kind)) {
      std::fprintf(stderr, "kd hash: %s: line %u is not a checksum line%s\n", listFile.c_str(),
                   lineNumber, named ? (std::string(" of ") + named->name).c_str() : "");
      ++malformed;
      continue;
    }
    ++checked;
    const std::optional<std::string> digest = digestOfFile(*kind, entry->name, progress);
    if (!digest) {
      ++unreadable;
      output.line(entry->name, ": FAILED open or read");
    } else if (*digest != entry->digest) {
      ++mismatched;
      guessed = guessed || (!named && !entry->kind && kind->hexLength <= 32);
      output.line(entry->name, ": FAILED");
    } else {
      output.line(entry->name, ": OK");
    }
  }
  const bool written = output.flush();
  if (in->bad()) {
    std::fprintf(stderr, "kd hash: %s: read error\n", listFile.c_str());
    return 1;
  }
  if (mismatched)
    std::fprintf(stderr, "kd hash: %u file(s) did not match their checksum\n", mismatched);
  if (guessed)
    std::fputs(
        "kd hash: lines of 16 or 32 hex digits were taken as xxh64 or MD5; if the list holds "
        "xxh3 or xxh128 digests, say so with --hash\n",
        stderr);
  if (unreadable) std::fprintf(stderr, "kd hash: %u file(s) could not be read\n", unreadable);
  if (malformed) std::fprintf(stderr, "kd hash: %u line(s) were not understood\n", malformed);
  if (checked == 0 && malformed == 0)
    std::fprintf(stderr, "kd hash: %s: no checksum lines\n", listFile.c_str());
  return (mismatched || unreadable || malformed || checked == 0 || !written) ? 1 : 0;
}

void setupHash(CLI::App& app) {
  auto* cmd = app.add_subcommand("hash", "Print or check digests of files (MD5, SHA, xxHash)");
  static std::string kindName;
  static bool flags[4] = {};
  static bool tag = false;
  static std::string listFile;
  static std::vector<std::string> files;
  std::vector<CLI::Option*> kindOptions;
  kindOptions.push_back(
      cmd->add_option("--hash", kindName,
                      "The digest: md5 (the default), sha1, sha256, sha512, xxh64, xxh3 or "
                      "xxh128; several, comma-separated, from one read (not with -c)")
          ->type_name("KIND[,KIND...]")
          ->check(
              [](const std::string& text) -> std::string {
                const kd::HashKinds list(text);
                if (std::optional<std::string> problem = list.problem()) return *problem;
                return "";
              },
              "KIND[,KIND...]"));
  for (std::size_t i = 0; i < 4; ++i)
    kindOptions.push_back(cmd->add_flag(std::string("--") + kKinds[i].name, flags[i],
                                        std::string("The same as --hash ") + kKinds[i].name));
  for (auto* o : kindOptions)
    for (auto* other : kindOptions)
      if (o != other) o->excludes(other);
  cmd->add_flag("--tag", tag, "Print \"KIND (FILE) = DIGEST\" lines (xxh3 always does)");
  auto* checkOpt = cmd->add_option("-c,--check", listFile,
                                   "Check the files of a checksum list (\"-\": standard input)");
  auto* filesOpt = cmd->add_option("FILE", files, "Files to hash (none or \"-\": standard input)");
  checkOpt->excludes(filesOpt);
  cmd->footer(
      "Prints one line per file, \"DIGEST  FILE\", that md5sum -c, sha1sum -c,\n"
      "sha256sum -c, sha512sum -c and (for xxh64 and xxh128) xxhsum -c accept; with\n"
      "--tag, and always for xxh3, \"KIND (FILE) = DIGEST\" lines as the BSD tools and\n"
      "xxhsum --tag write them. With -c, reads such a list (of either form, from any\n"
      "of those tools) and prints \"FILE: OK\" or \"FILE: FAILED\" per line. Without\n"
      "--hash, an untagged line's kind is told by its length: 16 hex digits are\n"
      "xxh64 and 32 are MD5, unless the list's name ends in .xxh3 or .xxh128. Exits 1\n"
      "when any file differs or cannot be read, or when a line of the list is not\n"
      "understood. With several kinds (--hash xxh64,md5) each file is read once and\n"
      "gives one tagged line per kind. On a terminal, files from 100 MB show a\n"
      "progress line on standard error.\n"
      "Example: kd hash --hash xxh64 A001.mov > list && kd hash -c list");
  cmd->callback([checkOpt] {
    std::vector<const Kind*> kinds;
    const kd::HashKinds listed(kindName);
    for (const std::string& name : listed.all()) kinds.push_back(kindNamed(name));
    for (std::size_t i = 0; i < 4; ++i)
      if (flags[i]) kinds = {&kKinds[i]};
    if (kinds.size() > 1 && checkOpt->count() > 0) {
      std::fputs("kd hash: -c checks with one kind: a list says each line's kind itself\n", stderr);
      kd::tool::exitWith(2);
    }
    const Kind* named = kinds.empty() ? nullptr : kinds.front();
    // Read errors of the library's parts go to the application log: give them
    // one ("kd.1.log") where this user has a log folder.
    if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
    Progress progress(::isatty(STDERR_FILENO) == 1);
    if (files.empty()) files.push_back("-");
    if (kinds.empty()) kinds.push_back(&kKinds[0]);
    // Several kinds are told apart by their tags; xxhsum lists xxh3 only tagged.
    const bool tagged = tag || kinds.size() > 1 || kinds.front()->name == std::string("xxh3");
    const int status = checkOpt->count() > 0 ? checkList(named, listFile, progress)
                                             : hashFiles(kinds, files, tagged, progress);
    KdLog::finishWriting();
    if (status != 0) kd::tool::exitWith(status);
  });
}

}  // namespace
KD_COMMAND(setupHash);
