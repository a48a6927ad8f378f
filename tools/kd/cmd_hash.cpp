// kd hash: prints the digests of files as checksum lists that the coreutils
// checkers accept, and checks such lists.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"
#include "common/ReadAhead.h"
#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"

namespace {

constexpr std::uint64_t kProgressStep = 52428800;  // the hashes' question interval
constexpr std::uint64_t kProgressFrom = 2 * kProgressStep;

struct Algorithm {
  KdDigestKind kind;
  const char* flag;
  const char* label;
  std::size_t hexLength;
};
constexpr Algorithm kAlgorithms[] = {{KdDigestKind::MD5, "md5", "MD5", 32},
                                     {KdDigestKind::SHA1, "sha1", "SHA-1", 40},
                                     {KdDigestKind::SHA256, "sha256", "SHA-256", 64},
                                     {KdDigestKind::SHA512, "sha512", "SHA-512", 128}};

// The progress line on standard error, fed from the hashes' delegate on worker
// threads. A report for a file that is no longer the current one is dropped,
// so no line is drawn after the file's result. Shared (by shared pointer)
// between the command and the delegate's pending tasks; thread-safe.
class Progress {
 public:
  explicit Progress(bool enabled) : enabled_(enabled) {}

  // Starts a file; returns its ticket for step().
  unsigned begin(const std::string& name, std::uint64_t size) {
    std::lock_guard lock(mu_);
    ++current_;
    shown_ = enabled_ && size >= kProgressFrom;
    name_ = name;
    size_ = size;
    steps_ = 0;
    return current_;
  }
  void step(unsigned ticket) {
    std::lock_guard lock(mu_);
    if (ticket != current_ || !shown_) return;
    const std::uint64_t done = ++steps_ * kProgressStep;
    std::fprintf(stderr, "\r\033[Khashing %s: %llu of %llu MiB (%d%%)", name_.c_str(),
                 static_cast<unsigned long long>(done >> 20),
                 static_cast<unsigned long long>(size_ >> 20),
                 static_cast<int>(size_ ? done * 100 / size_ : 100));
    std::fflush(stderr);
  }
  void end() {
    std::lock_guard lock(mu_);
    ++current_;
    if (shown_ && steps_ > 0) std::fputs("\r\033[K", stderr);
    shown_ = false;
  }

 private:
  const bool enabled_;
  std::mutex mu_;
  unsigned current_ = 0;                // guarded by mu_
  bool shown_ = false;                  // guarded by mu_
  std::string name_;                    // guarded by mu_
  std::uint64_t size_ = 0, steps_ = 0;  // guarded by mu_
};

// SHA-256 has no whole-file operation in the library: read the file here and
// digest it through the context form.
std::optional<std::string> sha256OfFile(const std::string& path, Progress& progress,
                                        unsigned ticket) {
  kd::UniqueFd fd(kd::retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!fd) {
    std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(), std::strerror(errno));
    return std::nullopt;
  }
  KdSHA256Context context;
  kd::ReadAhead reader(fd.get());
  std::uint64_t total = 0;
  for (;;) {
    const kd::ReadAhead::Read chunk = reader.next();
    if (chunk.length == 0) break;
    if (chunk.length < 0) {
      std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(), std::strerror(chunk.error));
      return std::nullopt;
    }
    context.update(chunk.data, static_cast<std::size_t>(chunk.length));
    total += static_cast<std::uint64_t>(chunk.length);
    if (total % kProgressStep == 0) progress.step(ticket);
  }
  return KdFileManager::sha256HashWithContext(std::move(context));
}

std::optional<std::string> digestOfFile(KdDigestKind kind, const std::string& path,
                                        const std::shared_ptr<Progress>& progress,
                                        const std::string& shownName) {
  struct stat st {};
  const std::uint64_t size =
      ::stat(path.c_str(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  const unsigned ticket = progress->begin(shownName, size);
  // A question may come after the hash has returned: the delegate holds the
  // progress line by shared pointer.
  auto delegate = std::make_shared<KdChecksumDelegate>();
  delegate->checksumShouldContinue = [progress, ticket](const std::string&) {
    progress->step(ticket);
    return true;
  };
  std::optional<std::string> digest;
  switch (kind) {
    case KdDigestKind::MD5:
      digest = KdFileManager::md5HashForFile(path, delegate);
      break;
    case KdDigestKind::SHA1:
      digest = KdFileManager::sha1HashForFile(path, delegate);
      break;
    case KdDigestKind::SHA256:
      digest = sha256OfFile(path, *progress, ticket);
      break;
    case KdDigestKind::SHA512:
      digest = KdFileManager::sha512HashForFile(path, delegate);
      break;
  }
  progress->end();
  return digest;
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
  void digestLine(const std::string& digest, const std::string& name) {
    const bool esc = needsEscape(name);
    std::cout << (esc ? "\\" : "") << digest << "  " << (esc ? escaped(name) : name) << '\n';
  }
  bool flush() { return static_cast<bool>(std::cout.flush()); }
};

struct ListEntry {
  std::string digest;
  std::string name;
};

// One line of a checksum list: "DIGEST  NAME" or "DIGEST *NAME", with a
// leading backslash when the name is escaped.
std::optional<ListEntry> parseLine(std::string line) {
  bool esc = false;
  if (!line.empty() && line[0] == '\\') {
    esc = true;
    line.erase(0, 1);
  }
  std::size_t hex = 0;
  while (hex < line.size() && std::isxdigit(static_cast<unsigned char>(line[hex]))) ++hex;
  if (hex + 2 > line.size() || line[hex] != ' ' || (line[hex + 1] != ' ' && line[hex + 1] != '*'))
    return std::nullopt;
  ListEntry entry{line.substr(0, hex), line.substr(hex + 2)};
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

const Algorithm* algorithmForLength(std::size_t length) {
  for (const Algorithm& a : kAlgorithms)
    if (a.hexLength == length) return &a;
  return nullptr;
}

// Whether the file can be opened for reading as a file; says why not
// ("kd hash: X: No such file or directory") when it cannot. The library's
// own message for a file it cannot open speaks of a destination file, which
// means nothing here.
bool readable(const std::string& path) {
  kd::UniqueFd fd(kd::retryOnEintr(
      [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
  struct stat st {};
  int err = 0;
  if (!fd)
    err = errno;
  else if (::fstat(fd.get(), &st) != 0)
    err = errno;
  else if (S_ISDIR(st.st_mode))
    err = EISDIR;
  if (err == 0) return true;
  std::fprintf(stderr, "kd hash: %s: %s\n", path.c_str(), std::strerror(err));
  return false;
}

int hashFiles(const Algorithm& algorithm, const std::vector<std::string>& files,
              const std::shared_ptr<Progress>& progress) {
  ListOutput output;
  int status = 0;
  for (const std::string& file : files) {
    if (!readable(file)) {
      status = 1;
      continue;
    }
    const std::optional<std::string> digest = digestOfFile(algorithm.kind, file, progress, file);
    if (digest) {
      output.digestLine(*digest, file);
    } else {
      std::fprintf(stderr, "kd hash: %s: not hashed\n", file.c_str());
      status = 1;
    }
  }
  if (!output.flush()) status = 1;
  return status;
}

int checkList(const Algorithm* named, const std::string& listFile,
              const std::shared_ptr<Progress>& progress) {
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
  for (std::string line; std::getline(*in, line);) {
    ++lineNumber;
    if (line.empty()) continue;
    std::optional<ListEntry> entry = parseLine(line);
    const Algorithm* algorithm =
        entry ? (named ? named : algorithmForLength(entry->digest.size())) : nullptr;
    if (!entry || !algorithm || entry->digest.size() != algorithm->hexLength) {
      std::fprintf(stderr, "kd hash: %s: line %u is not a checksum line\n", listFile.c_str(),
                   lineNumber);
      ++malformed;
      continue;
    }
    ++checked;
    const std::optional<std::string> digest =
        readable(entry->name) ? digestOfFile(algorithm->kind, entry->name, progress, entry->name)
                              : std::nullopt;
    if (!digest) {
      ++unreadable;
      output.line(entry->name, ": FAILED open or read");
    } else if (*digest != entry->digest) {
      ++mismatched;
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
  if (unreadable) std::fprintf(stderr, "kd hash: %u file(s) could not be read\n", unreadable);
  if (malformed) std::fprintf(stderr, "kd hash: %u line(s) were not understood\n", malformed);
  if (checked == 0 && malformed == 0)
    std::fprintf(stderr, "kd hash: %s: no checksum lines\n", listFile.c_str());
  return (mismatched || unreadable || malformed || checked == 0 || !written) ? 1 : 0;
}

void setupHash(CLI::App& app) {
  auto* cmd = app.add_subcommand("hash", "Print or check MD5, SHA-1, SHA-256 or SHA-512 digests");
  static bool flags[4] = {};
  static std::string listFile;
  static std::vector<std::string> files;
  std::vector<CLI::Option*> options;
  for (std::size_t i = 0; i < 4; ++i) {
    const Algorithm& a = kAlgorithms[i];
    options.push_back(
        cmd->add_flag(std::string("--") + a.flag, flags[i],
                      std::string(a.label) + " digests" + (i == 0 ? " (the default)" : "")));
  }
  for (auto* o : options)
    for (auto* other : options)
      if (o != other) o->excludes(other);
  auto* checkOpt = cmd->add_option("-c,--check", listFile,
                                   "Check the files of a checksum list (\"-\": standard input)");
  auto* filesOpt = cmd->add_option("FILE", files, "Files to hash");
  checkOpt->excludes(filesOpt);
  cmd->footer(
      "Prints one line per file, \"DIGEST  FILE\", that md5sum -c, sha1sum -c, sha256sum -c\n"
      "and sha512sum -c accept. With -c, reads such a list and prints \"FILE: OK\" or\n"
      "\"FILE: FAILED\" per line; without a digest flag each line's digest is told by its\n"
      "length. Exits 1 when any file differs or cannot be read, or when a line of the list\n"
      "is not understood. On a terminal, files from 100 MiB show a progress line on\n"
      "standard error. Example: kd hash --sha1 A001.mov > list && kd hash -c list");
  cmd->callback([checkOpt] {
    const Algorithm* named = nullptr;
    for (std::size_t i = 0; i < 4; ++i)
      if (flags[i]) named = &kAlgorithms[i];
    if (checkOpt->count() == 0 && files.empty()) {
      std::fputs("kd hash: name at least one FILE, or a list with -c (see kd hash --help)\n",
                 stderr);
      kd::tool::exitWith(2);
    }
    // The hashes report read errors to the application log: give them one
    // ("kd.1.log") where this user has a log folder.
    if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
    const auto progress = std::make_shared<Progress>(::isatty(STDERR_FILENO) == 1);
    const int status = checkOpt->count() > 0
                           ? checkList(named, listFile, progress)
                           : hashFiles(named ? *named : kAlgorithms[0], files, progress);
    KdLog::finishWriting();
    if (status != 0) kd::tool::exitWith(status);
  });
}

}  // namespace
KD_COMMAND(setupHash);
