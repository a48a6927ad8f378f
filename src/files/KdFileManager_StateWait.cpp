// Dates stamped on files and the waits of KdFileManager.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "auth/KdAuthorization.h"
#include "files/FileOperations.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"
#include "platform/Platform.h"
#include "tasks/KdTaskEx.h"

namespace {

using Clock = std::chrono::system_clock;
using Steady = std::chrono::steady_clock;

constexpr std::chrono::duration<double> kQuietPeriod{5.0};
constexpr std::chrono::microseconds kCreationPause{500};
// The longest single sleep of the write wait: the clock may be set while we
// sleep, so the dates are looked at again at least this often.
constexpr std::chrono::milliseconds kLongestSleep{1000};

constexpr char kTouch[] = "/usr/bin/touch";

}  // namespace

bool KdFileManager::touchFile(const std::optional<std::string>& path, bool setCreationDate) {
  if (!path) return false;
  auto& metadata = kd::platform().fileMetadata();
  bool result = false;
  if (::access(path->c_str(), W_OK) == 0) {
    // The path comes after "--" so that a name starting with "-" is no option.
    KdTaskEx::runTask(kTouch, {"-c", "--", *path}, 5.0);
    result = true;
    // The answer is the touch's; a file system without dates keeps its own.
    if (setCreationDate) (void)metadata.setCreationDate(*path, Clock::now());
  } else {
    struct stat st {};
    if (::lstat(path->c_str(), &st) != 0) {
      // Nothing to touch: "-c" would not create it, so no rights are asked for.
      kd::platform().desktop().noteFileSystemChanged(*path);
      return false;
    }
    if (setCreationDate) (void)metadata.setCreationDate(*path, Clock::now());
    // With administrator rights, waiting for the tool (root runs it itself).
    result = KdAuthorization::sharedController().authExecTask(kTouch, {"-c", "--", *path},
                                                              /*async=*/false) == 0;
  }
  kd::platform().desktop().noteFileSystemChanged(*path);
  return result;
}

bool KdFileManager::setModificationDate(Date date, const std::string& forFile) {
  if (forFile.empty()) return false;
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
  struct timespec modified {};
  modified.tv_sec = static_cast<time_t>(ns / 1000000000);
  modified.tv_nsec = static_cast<long>(ns % 1000000000);
  if (modified.tv_nsec < 0) {
    modified.tv_nsec += 1000000000;
    --modified.tv_sec;
  }
  return kd::files::setModificationTime(forFile, modified).ok();
}

void KdFileManager::waitForFileCreation(const std::string& path, long timeout) {
  const auto start = Steady::now();
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && st.st_size != 0) return;
  if (Steady::now() - start <= std::chrono::seconds(timeout)) {
    KdLog::appendLog("File %@ is not yet created. Waiting...", path);
    std::this_thread::sleep_for(kCreationPause);
  }
}

void KdFileManager::waitForFileWrites(const std::string& path,
                                      const std::optional<std::string>& lockFile) {
  auto age = [](Date d) { return Clock::now() - d; };
  const std::optional<Date> first = modificationDateForFile(path);
  const bool recent = first && age(*first) <= kQuietPeriod;
  if (!recent && (!lockFile || !fileExistsAtPath(*lockFile))) return;
  KdLog::appendLog("File %@ is currently being written to. Waiting...", path);

  // A missing file counts as written just now: it may be about to appear.
  if (!first || age(*first) <= kQuietPeriod) {
    // Each look sleeps until the earliest moment the answer could change
    // instead of polling: the date turning 5 s old, the date having stayed
    // the same for 5 s (a date in the future would otherwise keep us here
    // until that day), or the file having been missing for 5 s.
    std::optional<Date> seen = first;
    auto sameSince = Steady::now();
    std::optional<Steady::time_point> missingSince;
    for (;;) {
      const std::optional<Date> now = modificationDateForFile(path);
      std::chrono::duration<double> wait;
      if (now) {
        missingSince.reset();
        if (now != seen) {
          seen = now;
          sameSince = Steady::now();
        }
        const auto untilOld = kQuietPeriod - age(*now);
        const auto untilQuiet = kQuietPeriod - (Steady::now() - sameSince);
        if (untilOld.count() < 0 || untilQuiet.count() < 0) break;
        wait = std::min<std::chrono::duration<double>>(untilOld, untilQuiet);
      } else {
        if (!missingSince) missingSince = Steady::now();
        wait = kQuietPeriod - (Steady::now() - *missingSince);
        if (wait.count() < 0) break;
      }
      wait = std::clamp<std::chrono::duration<double>>(wait, std::chrono::milliseconds(1),
                                                       kLongestSleep);
      std::this_thread::sleep_for(wait);
    }
  }
  KdLog::appendLog("File %@ finished writing.", path);
}
