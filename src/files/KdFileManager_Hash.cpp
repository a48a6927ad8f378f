// Hashing of KdFileManager: digest text from running contexts, and whole-file
// hashes with an optional delegate.
#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <exception>
#include <memory>

#include "common/UniqueFd.h"
#include "common/WorkQueue.h"
#include "files/KdFileManager.h"
#include "files/copy/FileDigest.h"
#include "log/KdException.h"
#include "log/KdLog.h"
#include "platform/Platform.h"

namespace {

// The delegate is asked each time the bytes read reach a multiple of this
// (800 reads of kd::ReadAhead::kReadSize, 64 KiB).
constexpr std::uint64_t kQuestionInterval = 52428800;

std::optional<std::string> hexText(const KdDigestContext& context) {
  const std::optional<KdDigestContext::Digest> digest = context.digest();
  if (!digest) return std::nullopt;
  return kdDigestText(digest->bytes.data(), digest->length);
}

// Asks the delegate on the work queue, without waiting, and sets the cell on
// a false answer. The task holds the delegate, the path and the cell.
void askToContinue(std::shared_ptr<const KdChecksumDelegate> delegate, std::string path,
                   std::shared_ptr<KdCancellation> cancellation) {
  kd::WorkQueue::shared().async([delegate = std::move(delegate), path = std::move(path),
                                 cancellation = std::move(cancellation)] {
    try {
      if (!delegate->checksumShouldContinue(path)) cancellation->cancel();
    } catch (const std::exception& e) {
      KdException::logException(e, "checksumShouldContinue:");
    } catch (...) {
      KdException::logException("unknown", "an exception that is not a std::exception",
                                "checksumShouldContinue:");
    }
  });
}

// Opens for reading; the descriptor is not valid when that fails. A path with
// a NUL in it names no file (it would name a different, shorter one).
kd::UniqueFd openForReading(const std::string& path) {
  if (path.find('\0') != std::string::npos) {
    errno = ENOENT;
    return kd::UniqueFd();
  }
  return kd::UniqueFd(kd::retryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
}

std::optional<std::string> hashFile(const std::string& path,
                                    const std::shared_ptr<const KdChecksumDelegate>& delegate,
                                    const char* kind) {
  const kd::UniqueFd fd = openForReading(path);
  if (!fd) {
    kd::platform().systemLog(kd::format(
        "Error: Unable to open destination file %@. Aborting hash verification...", path));
    return std::nullopt;
  }
  const bool asks = delegate != nullptr && delegate->respondsToChecksumShouldContinue();
  const std::shared_ptr<KdCancellation> cancellation = asks ? KdCancellation::make() : nullptr;
  std::uint64_t total = 0;
  auto read = [&](std::uint64_t length) {
    total += length;
    if (!asks) return true;
    if (total % kQuestionInterval == 0) askToContinue(delegate, path, cancellation);
    return !cancellation->cancelled();
  };
  // read() tells the end (0) from a failure (-1) itself, so a read that
  // returns nothing is always the end; a failure, EAGAIN included, ends the
  // hash rather than trying again.
  kd::copy::DigestFailure failure;
  std::optional<std::vector<std::string>> digests = kd::copy::digestsOfFile(
      fd.get(), kd::copy::Reading::Ahead, {*KdFileManager::copyDigestNamed(kind)}, read, failure);
  if (digests) return std::move(digests->front());
  switch (failure.what) {
    case kd::copy::DigestFailure::What::Unavailable:
    case kd::copy::DigestFailure::What::NoMemory:
      KdLog::appendLogAndPrint("Error reading file %@ - out of memory", path);
      break;
    case kd::copy::DigestFailure::What::Read:
      KdLog::appendLogAndPrint("Error reading file %@ - aborting...", path);
      break;
    case kd::copy::DigestFailure::What::Stopped:
    case kd::copy::DigestFailure::What::Final:
      break;
  }
  return std::nullopt;
}

std::optional<std::string> guardedHashFile(
    const char* method, const std::string& path,
    const std::shared_ptr<const KdChecksumDelegate>& delegate, const char* kind) {
  try {
    return hashFile(path, delegate, kind);
  } catch (const std::exception& e) {
    KdException::logException(e, method);
  } catch (...) {
    KdException::logException("unknown", "an exception that is not a std::exception", method);
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::string> KdFileManager::md5HashWithContext(KdMD5Context context) {
  return hexText(context);
}
std::optional<std::string> KdFileManager::sha1HashWithContext(KdSHA1Context context) {
  return hexText(context);
}
std::optional<std::string> KdFileManager::sha256HashWithContext(KdSHA256Context context) {
  return hexText(context);
}
std::optional<std::string> KdFileManager::sha512HashWithContext(KdSHA512Context context) {
  return hexText(context);
}

std::optional<std::string> KdFileManager::md5HashForFile(
    const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate) {
  return guardedHashFile("+[KdFileManager md5HashForFile:delegate:]", path, delegate, "md5");
}
std::optional<std::string> KdFileManager::sha1HashForFile(
    const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate) {
  return guardedHashFile("+[KdFileManager sha1HashForFile:delegate:]", path, delegate, "sha1");
}
std::optional<std::string> KdFileManager::sha512HashForFile(
    const std::string& path, std::shared_ptr<const KdChecksumDelegate> delegate) {
  return guardedHashFile("+[KdFileManager sha512HashForFile:delegate:]", path, delegate, "sha512");
}
