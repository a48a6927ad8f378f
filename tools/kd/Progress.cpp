// Progress of long work on standard error.
#include "Progress.h"

#include <csignal>
#include <cstdio>

#include "files/KdFileManager.h"

namespace {

std::atomic<bool> stopAsked{false};

extern "C" void askToStop(int) {
  stopAsked.store(true);
  std::signal(SIGINT, SIG_DFL);
  std::signal(SIGTERM, SIG_DFL);
}

}  // namespace

namespace kd::tool {

const std::atomic<bool>* stopOnInterrupt() {
  std::signal(SIGINT, askToStop);
  std::signal(SIGTERM, askToStop);
  return &stopAsked;
}

std::string size(std::uint64_t bytes) {
  return KdFileManager::formatFileSize(static_cast<double>(bytes));
}

std::string clock(double seconds) {
  const long s = static_cast<long>(seconds);
  char text[32];
  if (s >= 3600)
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, s / 60 % 60, s % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld", s / 60, s % 60);
  return text;
}

Progress::Progress(bool terminal, std::string label)
    : terminal_(terminal),
      label_(std::move(label)),
      start_(Clock::now()),
      lastLine_(terminal ? Clock::time_point() : start_) {}

void Progress::file(const std::string& path) {
  MutexLock lock(mu_);
  file_ = path;
  draw();
}

void Progress::bytes(std::uint64_t done, std::uint64_t total) {
  MutexLock lock(mu_);
  if (done < done_) return;  // reports from threads may come late
  done_ = done;
  total_ = total;
  draw();
}

void Progress::end() {
  MutexLock lock(mu_);
  if (terminal_ && drawn_) std::fputs("\r\033[K", stderr);
  ended_ = true;
}

void Progress::draw() {
  if (ended_) return;
  const Clock::time_point now = Clock::now();
  if (!terminal_ && now - lastLine_ < std::chrono::seconds(5)) return;
  if (terminal_ && now - lastLine_ < std::chrono::milliseconds(100)) return;
  lastLine_ = now;
  drawn_ = true;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0;
  const int percent = total_ ? static_cast<int>(done_ * 100 / total_) : 0;
  const std::string left = rate > 0 && total_ >= done_
                               ? clock(static_cast<double>(total_ - done_) / rate)
                               : std::string("--:--");
  if (terminal_) {
    constexpr int kWidth = 24;
    std::string bar(static_cast<std::size_t>(percent * kWidth / 100), '#');
    bar.resize(kWidth, '.');
    std::string name = file_;
    if (name.size() > 40) name = "…" + name.substr(name.size() - 39);
    std::fprintf(stderr, "\r\033[K[%s] %3d%% %s of %s  %s/s  %s left  %s", bar.c_str(), percent,
                 size(done_).c_str(), size(total_).c_str(),
                 KdFileManager::formatFileSize(rate).c_str(), left.c_str(), name.c_str());
  } else {
    std::fprintf(stderr, "%s: %d%%, %s of %s, %s/s, %s left: %s\n", label_.c_str(), percent,
                 size(done_).c_str(), size(total_).c_str(),
                 KdFileManager::formatFileSize(rate).c_str(), left.c_str(), file_.c_str());
  }
  std::fflush(stderr);
}

OffloadProgress offloadProgress(const std::shared_ptr<Progress>& progress) {
  OffloadProgress callbacks;
  callbacks.fileStarted = [progress](const std::string& path, std::uint64_t) {
    progress->file(path);
  };
  callbacks.bytes = [progress](std::uint64_t done, std::uint64_t total) {
    progress->bytes(done, total);
  };
  return callbacks;
}

}  // namespace kd::tool
