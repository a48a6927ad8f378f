// The verified copy of KdFileManager: the operations that open the source
// and the destinations, check them, print the copy's messages and drive the
// delegate around the engine (files/copy/CopyEngine.h), which copies.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "common/Path.h"
#include "common/UniqueFd.h"
#include "common/WorkQueue.h"
#include "files/KdFileManager.h"
#include "files/copy/CopyEngine.h"
#include "log/Format.h"
#include "log/KdException.h"
#include "log/KdLog.h"
#include "platform/FileMetadata.h"
#include "platform/Platform.h"

namespace {

constexpr std::uint64_t kMinProgressStep = 20971520;  // 20 MiB
constexpr char kMethod[] =
    "+[KdFileManager copyFileWithProgress:destinations:verificationType:delegate:object:object:]";

template <class... Args>
void console(std::string_view format, const Args&... args) {
  kd::platform().systemLog(kd::format(format, args...));
}

// Runs a delegate method, reporting what it throws.
template <class F>
void guarded(const char* method, F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    KdException::logException(e, method);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception", method);
  }
}

std::string errorText(int error) {
  return std::strerror(error);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The destination's folder, "." for a bare name.
std::string parentFolder(const std::string& path) {
  std::string parent = kd::path::deletingLastComponent(path);
  return parent.empty() ? "." : parent;
}

// The destination's name with its folder resolved, so that two spellings of
// one path compare equal; the path itself when the folder cannot be resolved.
std::string resolvedDestination(const std::string& path) {
  char* real = ::realpath(parentFolder(path).c_str(), nullptr);
  if (real == nullptr) return path;
  std::string resolved = kd::path::append(std::string(real), kd::path::lastComponent(path));
  std::free(real);
  return resolved;
}

// Sends the progress step and the question, each on the work queue with its
// own snapshot of the settings, without waiting for either.
void reportStep(const std::shared_ptr<const KdFileCopyDelegate>& delegate,
                const KdCopySettings& settings, std::uint64_t total,
                const std::shared_ptr<KdCancellation>& cancellation) {
  const bool reports = static_cast<bool>(delegate->fileCopyBytesWritten);
  const bool asks = static_cast<bool>(delegate->fileCopyShouldContinue);
  if (!reports && !asks) return;
  auto snapshot = std::make_shared<const KdCopySettings>(settings);
  if (reports) {
    kd::WorkQueue::shared().async([delegate, snapshot, total] {
      guarded("fileCopyBytesWritten:settings:",
              [&] { delegate->fileCopyBytesWritten(total, *snapshot); });
    });
  }
  if (asks) {
    kd::WorkQueue::shared().async([delegate, snapshot, cancellation] {
      guarded("fileCopyShouldContinue:", [&] {
        if (!delegate->fileCopyShouldContinue(*snapshot)) cancellation->cancel();
      });
    });
  }
}

// Opens a destination for writing, truncated, refusing anything that is not
// a regular file of its own: a link, a folder, a device, the source.
kd::UniqueFd openDestination(const std::string& path, const struct stat& source,
                             const std::vector<kd::copy::Target>& opened) {
  struct stat st {};
  if (path.find('\0') != std::string::npos) return kd::UniqueFd();
  if (::lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return kd::UniqueFd();
  kd::UniqueFd fd(kd::retryOnEintr(
      [&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666); }));
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) || sameFile(st, source))
    return kd::UniqueFd();
  for (const kd::copy::Target& d : opened) {
    struct stat other {};
    if (::fstat(d.fd.get(), &other) == 0 && sameFile(st, other)) return kd::UniqueFd();
  }
  if (kd::retryOnEintr([&] { return ::ftruncate(fd.get(), 0); }) != 0) return kd::UniqueFd();
  return fd;
}

// The first destination that is the source or repeats an earlier one.
std::optional<std::string> refusedDestination(const std::string& source,
                                              const std::vector<std::string>& destinations) {
  struct stat src {};
  const bool haveSource = ::stat(source.c_str(), &src) == 0;
  std::vector<std::string> seen;
  std::vector<struct stat> seenFiles;
  for (const std::string& path : destinations) {
    const std::string resolved = resolvedDestination(path);
    if (std::find(seen.begin(), seen.end(), resolved) != seen.end()) return path;
    seen.push_back(resolved);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) continue;
    if (haveSource && sameFile(st, src)) return path;
    for (const struct stat& other : seenFiles)
      if (sameFile(st, other)) return path;
    seenFiles.push_back(st);
  }
  return std::nullopt;
}

// Opens the source for reading: a regular file only, and never waiting on a
// named pipe or a device (opened without blocking, checked, then made
// blocking for the copy).
kd::UniqueFd openSource(const std::string& source, struct stat& st) {
  if (source.find('\0') != std::string::npos) return kd::UniqueFd();
  kd::UniqueFd fd(kd::retryOnEintr(
      [&] { return ::open(source.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
  if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return kd::UniqueFd();
  const int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags < 0 || ::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return kd::UniqueFd();
  return fd;
}

KdFileManager::CopyResult copyOpened(KdFileManager::CopyResult& result, const std::string& source,
                                     kd::UniqueFd sourceFd, const struct stat& sourceStat,
                                     std::vector<kd::copy::Target> open,
                                     const KdFileManager::CopyDigest& digest,
                                     const std::shared_ptr<const KdFileCopyDelegate>& delegate,
                                     bool keepPermissions,
                                     const std::vector<KdFileManager::CopyDigest>& moreDigests,
                                     const kd::copy::DirectProgress* direct);

KdFileManager::CopyResult copy(const std::string& source,
                               const std::vector<std::string>& destinations,
                               const KdFileManager::CopyDigest& digest,
                               std::shared_ptr<const KdFileCopyDelegate> delegate, std::any object,
                               std::any object2) {
  KdFileManager::CopyResult result;
  if (!KdFileManager::fileExistsAtPath(source)) {
    console("Error: File %@ doesn't exist. Aborting copy process...", source);
    return result;
  }
  if (destinations.empty()) {
    console("Error: You must have at least one destination. Aborting copy process...");
    return result;
  }
  // Only a regular file is copied: refused before any folder or file is made.
  struct stat given {};
  if (source.find('\0') != std::string::npos ||
      (::stat(source.c_str(), &given) == 0 && !S_ISREG(given.st_mode))) {
    console("Error: Unable to read source file %@. Aborting copy process...", source);
    return result;
  }
  for (const std::string& path : destinations) {
    const std::string parent = parentFolder(path);
    if (!KdFileManager::fileExistsAtPath(parent) && !KdFileManager::createDirectory(parent, 10)) {
      console(
          "Unable to copy file %@ - destination directory %@ doesn't exist. Aborting copy "
          "process...",
          source, parent);
      return result;
    }
  }
  if (std::optional<std::string> refused = refusedDestination(source, destinations)) {
    console("Error: Unable to open destination file %@. Aborting copy process...", *refused);
    return result;
  }

  KdCopySettings& settings = result.settings;
  settings.source = source;
  settings.destinations = destinations;
  settings.delegate = delegate;
  settings.object = std::move(object);
  settings.object2 = std::move(object2);

  struct stat sourceStat {};
  kd::UniqueFd sourceFd = openSource(source, sourceStat);
  if (!sourceFd) {
    console("Error: Unable to read source file %@. Aborting copy process...", source);
    return result;
  }

  std::vector<kd::copy::Target> open;
  open.reserve(destinations.size());
  for (const std::string& path : destinations) {
    kd::UniqueFd fd = openDestination(path, sourceStat, open);
    if (!fd) {
      console("Error: Unable to open destination file %@. Aborting copy process...", path);
      return result;
    }
    kd::copy::Target& d = open.emplace_back();
    d.path = path;
    d.name = path;
    d.fd = std::move(fd);
  }
  return copyOpened(result, source, std::move(sourceFd), sourceStat, std::move(open), digest,
                    delegate, /*keepPermissions=*/false, {}, nullptr);
}

// The copy from the open source to the open destinations: the engine copies;
// this tells the messages, the progress and the delegate.
KdFileManager::CopyResult copyOpened(KdFileManager::CopyResult& result, const std::string& source,
                                     kd::UniqueFd sourceFd, const struct stat& sourceStat,
                                     std::vector<kd::copy::Target> open,
                                     const KdFileManager::CopyDigest& digest,
                                     const std::shared_ptr<const KdFileCopyDelegate>& delegate,
                                     bool keepPermissions,
                                     const std::vector<KdFileManager::CopyDigest>& moreDigests,
                                     const kd::copy::DirectProgress* direct) {
  const auto cancellation = KdCancellation::make();
  KdCopySettings& settings = result.settings;
  const std::uint64_t size = static_cast<std::uint64_t>(sourceStat.st_size);
  const std::uint64_t step = std::max(size / 1000, kMinProgressStep);
  kd::copy::Source from;
  from.fd = sourceFd.get();
  from.st = sourceStat;
  from.creationDate = kd::platform().fileMetadata().creationDate(source);
  from.keepPermissions = keepPermissions;
  std::vector<std::string> paths;
  for (const kd::copy::Target& t : open) paths.push_back(t.path);
  const bool verifying = static_cast<bool>(digest.make);

  std::uint64_t lastReported = 0;
  auto onChunk = [&](const kd::copy::Chunk& chunk) {
    for (std::size_t i = 0; i < paths.size(); ++i) {
      const kd::copy::Chunk::PerTarget& t = chunk.targets[i];
      if (t.written < chunk.length) console("Error writing file %@: %i", paths[i], 1);
      if (verifying && t.readBackError != 0) {
        console("Error: unable to seek within file %@", paths[i]);
        console("cur pos: %llu", chunk.total - chunk.length);
        console("read size: %zu", chunk.length);
        console("errno: %i", t.readBackError);
        console("err: %i", 1);
      }
    }
    if (direct && direct->stop && direct->stop->load()) cancellation->cancel();
    if (chunk.total - lastReported >= step) {
      lastReported = chunk.total;
      if (direct && direct->bytes) direct->bytes(chunk.total);
      if (delegate) reportStep(delegate, settings, chunk.total, cancellation);
    }
    return !cancellation->cancelled();
  };
  kd::copy::Outcome copied =
      kd::copy::copyDescriptors(from, std::move(open), digest, moreDigests, cancellation, onChunk);
  sourceFd.reset();

  if (copied.outOfMemory) {
    KdLog::appendLogAndPrint("Error copying file %@ - out of memory", source);
    return result;
  }
  if (copied.readError != 0) {
    KdLog::appendLogAndPrint("Error reading file %@ - aborting...", source);
    return result;
  }
  if (cancellation->cancelled()) return result;
  const std::uint64_t total = copied.bytes;
  if (total < size) {
    console("Error: copied file size does not match original source %@", source);
    return result;
  }
  result.completed = true;
  result.bytesCopied = total;
  result.moreSourceDigests = std::move(copied.moreSourceDigests);

  std::vector<std::string> failed;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const kd::copy::TargetOutcome& d = copied.targets[i];
    KdFileManager::CopyOutcome& outcome = result.destinations.emplace_back();
    outcome.path = paths[i];
    outcome.written = d.written;
    outcome.error = d.error;
    if (d.writeError != 0) {
      outcome.failure = "a write failed: " + errorText(d.writeError);
    } else if (d.gone) {
      outcome.failure = "the file was removed or replaced while it was written";
      console("Error writing file %@: %i", paths[i], d.flushError);
    } else if (d.flushError != 0) {
      outcome.failure = "flushing to the device or closing failed: " + errorText(d.flushError);
      console("Error writing file %@: %i", paths[i], d.flushError);
    }
    outcome.verified = outcome.written;
    if (!outcome.written) failed.push_back(paths[i]);
  }
  settings.failedDestinations = failed;

  if (direct && direct->bytes) direct->bytes(total);
  if (delegate && delegate->fileCopyBytesWritten)
    guarded("fileCopyBytesWritten:settings:",
            [&] { delegate->fileCopyBytesWritten(total, settings); });

  if (verifying) {
    result.sourceDigest = copied.sourceDigest;
    settings.sourceChecksum = result.sourceDigest;
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < paths.size(); ++i) {
      KdFileManager::CopyOutcome& outcome = result.destinations[i];
      const kd::copy::TargetOutcome& d = copied.targets[i];
      outcome.digest = d.digest;
      texts.push_back(outcome.digest.value_or(""));
      if (!d.verified && outcome.failure.empty()) {
        outcome.failure = d.readBackError != 0
                              ? "reading it back failed: " + errorText(d.readBackError)
                              : "what was read back differs from the source";
      }
      outcome.verified = d.verified;
      if (outcome.verified) continue;
      if (std::find(failed.begin(), failed.end(), outcome.path) == failed.end())
        failed.push_back(outcome.path);
      settings.failedDestinations = failed;
      if (delegate && delegate->fileCopyVerificationFailed) {
        settings.destChecksum = texts.back();
        guarded("fileCopyVerificationFailed:file:",
                [&] { delegate->fileCopyVerificationFailed(settings, outcome.path); });
      }
    }
    settings.destChecksums = std::move(texts);
  }

  // The metadata went on each destination as it was finished. An error stays
  // once it happened and is told again for every later destination.
  std::optional<std::string> metadataError;
  for (std::size_t i = 0; i < paths.size(); ++i) {
    kd::copy::TargetOutcome& d = copied.targets[i];
    result.destinations[i].attributesNotKept = std::move(d.attributesNotKept);
    // Whatever now has the name of a destination that went is not ours.
    if (d.gone) continue;
    if (!d.metadataError.empty()) metadataError = d.metadataError;
    if (metadataError) console("Error setting metadata for file %@ - %@", paths[i], *metadataError);
  }

  if (delegate && delegate->fileCopyFinished)
    guarded("fileCopyFinished:", [&] { delegate->fileCopyFinished(settings); });
  return result;
}

}  // namespace

KdFileManager::CopyResult KdFileManager::copyFileWithOutcome(
    const std::string& source, const std::vector<std::string>& destinations,
    const CopyDigest& digest, std::shared_ptr<const KdFileCopyDelegate> delegate, std::any object,
    std::any object2) {
  try {
    return copy(source, destinations, digest, std::move(delegate), std::move(object),
                std::move(object2));
  } catch (const std::exception& e) {
    KdException::logException(e, kMethod);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception", kMethod);
  }
  return CopyResult();
}

namespace {

KdFileManager::CopyResult copyToOpen(const std::string& source,
                                     std::vector<KdFileManager::OpenDestination>& destinations,
                                     const KdFileManager::CopyDigest& digest,
                                     std::shared_ptr<const KdFileCopyDelegate> delegate,
                                     bool keepPermissions,
                                     const std::vector<KdFileManager::CopyDigest>& moreDigests,
                                     const kd::copy::DirectProgress* direct) {
  KdFileManager::CopyResult result;
  if (destinations.empty()) {
    console("Error: You must have at least one destination. Aborting copy process...");
    return result;
  }
  KdCopySettings& settings = result.settings;
  settings.source = source;
  for (const KdFileManager::OpenDestination& d : destinations)
    settings.destinations.push_back(d.path);
  settings.delegate = delegate;

  struct stat sourceStat {};
  kd::UniqueFd sourceFd = openSource(source, sourceStat);
  if (!sourceFd) {
    console("Error: Unable to read source file %@. Aborting copy process...", source);
    return result;
  }
  std::vector<kd::copy::Target> open;
  open.reserve(destinations.size());
  for (KdFileManager::OpenDestination& given : destinations) {
    struct stat st {};
    bool usable = given.fd && ::fstat(given.fd.get(), &st) == 0 && S_ISREG(st.st_mode) &&
                  !sameFile(st, sourceStat);
    for (const kd::copy::Target& d : open) {
      struct stat other {};
      if (usable && ::fstat(d.fd.get(), &other) == 0 && sameFile(st, other)) usable = false;
    }
    if (!usable || kd::retryOnEintr([&] { return ::ftruncate(given.fd.get(), 0); }) != 0) {
      console("Error: Unable to open destination file %@. Aborting copy process...", given.path);
      return result;
    }
    kd::copy::Target& d = open.emplace_back();
    d.path = given.path;
    d.folder = given.folder;
    d.name = given.name;
    d.fd = std::move(given.fd);
  }
  return copyOpened(result, source, std::move(sourceFd), sourceStat, std::move(open), digest,
                    delegate, keepPermissions, moreDigests, direct);
}

}  // namespace

KdFileManager::CopyResult KdFileManager::copyFileToOpenDestinations(
    const std::string& source, std::vector<OpenDestination> destinations, const CopyDigest& digest,
    std::shared_ptr<const KdFileCopyDelegate> delegate, bool keepPermissions,
    const std::vector<CopyDigest>& moreDigests) {
  try {
    return copyToOpen(source, destinations, digest, std::move(delegate), keepPermissions,
                      moreDigests, nullptr);
  } catch (const std::exception& e) {
    KdException::logException(e, kMethod);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception", kMethod);
  }
  return CopyResult();
}

bool KdFileManager::copyFileWithProgress(const std::string& source,
                                         const std::vector<std::string>& destinations,
                                         int verificationType,
                                         std::shared_ptr<const KdFileCopyDelegate> delegate,
                                         std::any object, std::any object2) {
  const std::optional<CopyDigest> digest = copyDigestForVerificationType(verificationType);
  if (!digest) {
    console("Error: Unknown verification type %i. Aborting copy process...", verificationType);
    return false;
  }
  return copyFileWithOutcome(source, destinations, *digest, std::move(delegate), std::move(object),
                             std::move(object2))
      .completed;
}

bool KdFileManager::copyFileWithProgress(const std::string& source, const std::string& destination,
                                         std::shared_ptr<const KdFileCopyDelegate> delegate,
                                         std::any object, std::any object2) {
  return copyFileWithProgress(source, std::vector<std::string>{destination}, 0, std::move(delegate),
                              std::move(object), std::move(object2));
}

KdFileManager::CopyResult kd::copy::copyToOpenFiles(
    const std::string& source, std::vector<KdFileManager::OpenDestination> destinations,
    const KdFileManager::CopyDigest& digest,
    const std::vector<KdFileManager::CopyDigest>& moreDigests, bool keepPermissions,
    const DirectProgress& progress) {
  try {
    return copyToOpen(source, destinations, digest, nullptr, keepPermissions, moreDigests,
                      &progress);
  } catch (const std::exception& e) {
    KdException::logException(e, kMethod);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception", kMethod);
  }
  return KdFileManager::CopyResult();
}
