// kd copy: one file to several destinations in one pass, verified by reading
// back what was written.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Commands.h"
#include "Output.h"
#include "Rights.h"
#include "common/ThreadAnnotations.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"

namespace {

// The progress bar on standard error, fed from the copy's delegate on worker
// threads; a report that comes after end() is dropped. Shared by shared
// pointer between the command and the delegate's tasks; thread-safe.
class ProgressBar {
 public:
  explicit ProgressBar(std::uint64_t size) : size_(size), start_(Clock::now()) {}

  void show(std::uint64_t done) {
    kd::MutexLock lock(mu_);
    if (ended_ || done <= shown_) return;
    shown_ = done;
    const double seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
    const int percent = size_ ? static_cast<int>(done * 100 / size_) : 100;
    constexpr int kWidth = 30;
    const int filled = std::min(kWidth, percent * kWidth / 100);
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(kWidth, '.');
    char left[32] = "--:--";
    if (rate > 0 && size_ >= done) {
      const auto secs = static_cast<long>(static_cast<double>(size_ - done) / rate);
      std::snprintf(left, sizeof left, "%ld:%02ld", secs / 60, secs % 60);
    }
    std::fprintf(stderr, "\r\033[K[%s] %3d%% %s of %s  %s/s  %s left", bar.c_str(), percent,
                 KdFileManager::formatFileSize(static_cast<double>(done)).c_str(),
                 KdFileManager::formatFileSize(static_cast<double>(size_)).c_str(),
                 KdFileManager::formatFileSize(rate).c_str(), left);
    std::fflush(stderr);
  }
  void end() {
    kd::MutexLock lock(mu_);
    if (!ended_ && shown_ > 0) std::fputs("\r\033[K", stderr);
    ended_ = true;
  }

 private:
  using Clock = std::chrono::steady_clock;
  const std::uint64_t size_;
  const Clock::time_point start_;
  kd::Mutex mu_;
  std::uint64_t shown_ KD_GUARDED_BY(mu_) = 0;
  bool ended_ KD_GUARDED_BY(mu_) = false;
};

void setupCopy(CLI::App& app) {
  auto* cmd = app.add_subcommand("copy", "Copy one file to several destinations, verified");
  static std::string verify = "sha256", source;
  static std::vector<std::string> destinations;
  cmd->add_option("--hash,--verify", verify, "Digest for the read-back check (default sha256)")
      ->check(
          CLI::IsMember({"none", "md5", "sha1", "sha256", "sha512", "xxh64", "xxh3", "xxh128"}));
  cmd->add_option("SOURCE", source, "File to copy")->required();
  cmd->add_option("DEST", destinations, "Destination file paths")->required();
  cmd->footer(
      "Reads SOURCE once and writes it to every DEST (a file path each, not a folder;\n"
      "missing folders are made). An existing DEST is overwritten in place; the\n"
      "source itself, a name given twice, a link or anything but a regular file is\n"
      "refused. Each DEST is read back as it is written and digested, flushed to\n"
      "its device, and its digest compared with the source's. Prints \"DIGEST  PATH\"\n"
      "for the source, then for each DEST, as the checksum tools list them (for xxh3\n"
      "\"XXH3 (PATH) = DIGEST\", as xxhsum does): kd hash -c and xxhsum -c read it. Dates and "
      "extended attributes (labels,\n"
      "tags) are kept where DEST's file system holds them. On a terminal a progress\n"
      "bar shows on standard error. Exits 1 when the copy failed, a write was short\n"
      "or a DEST did not verify, 0 otherwise.\n"
      "Example: kd copy A001.mov /backup1/A001.mov /backup2/A001.mov");
  cmd->callback([] {
    kd::tool::openCommandLog();
    const auto digest = KdFileManager::copyDigestNamed(verify);
    std::shared_ptr<ProgressBar> bar;
    std::shared_ptr<KdFileCopyDelegate> delegate;
    if (::isatty(STDERR_FILENO) == 1) {
      bar = std::make_shared<ProgressBar>(KdFileManager::fileSize(source));
      delegate = std::make_shared<KdFileCopyDelegate>();
      delegate->fileCopyBytesWritten = [bar](std::uint64_t total, const KdCopySettings&) {
        bar->show(total);
      };
    }
    const KdFileManager::CopyResult result =
        KdFileManager::copyFileWithOutcome(source, destinations, *digest, delegate);
    if (bar) bar->end();
    int status = 0;
    if (!result.completed) {
      std::fprintf(stderr, "kd copy: %s: not copied\n", source.c_str());
      status = 1;
    } else {
      // xxhsum lists xxh3 digests only in the tagged form.
      auto line = [](const std::string& digest, const std::string& path) {
        if (verify == "xxh3")
          std::cout << "XXH3 (" << path << ") = " << digest << '\n';
        else
          std::cout << digest << "  " << path << '\n';
      };
      if (result.sourceDigest) line(*result.sourceDigest, source);
      for (const KdFileManager::CopyOutcome& d : result.destinations) {
        if (d.digest) line(*d.digest, d.path);
        if (!d.attributesNotKept.empty()) {
          std::string names;
          for (const std::string& name : d.attributesNotKept)
            names += (names.empty() ? "" : ", ") + name;
          std::fprintf(stderr, "kd copy: %s: extended attributes not kept by the destination: %s\n",
                       d.path.c_str(), names.c_str());
        }
        if (!d.written || !d.verified) {
          std::fprintf(stderr, "kd copy: %s: %s\n", d.path.c_str(), d.failure.c_str());
          status = 1;
        }
      }
    }
    KdLog::finishWriting();
    if (!kd::tool::finishData()) status = 1;
    if (status != 0) kd::tool::exitWith(status);
  });
}

}  // namespace
KD_COMMAND(setupCopy);
