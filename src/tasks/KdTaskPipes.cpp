// Reading the child's piped output and error.
//
// Readers wait in poll() on their pipes and on a private wake pipe, so that
// another thread can end a read that would otherwise block for good: closing a
// descriptor under a blocked read() neither wakes it on Linux nor is it safe
// (the number may be reused at once).
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "tasks/KdTask.h"

namespace {

constexpr std::size_t kChunkSize = 64 * 1024;

enum class ReadResult { Data, End };

// One read of whatever is there (blocking or not as the descriptor is).
// Errors other than EAGAIN count as end of file: there is nothing more to get.
ReadResult readOnce(int fd, std::string* into, bool* wouldBlock = nullptr) {
  char buf[kChunkSize];
  ssize_t n = kd::retryOnEintr([&] { return ::read(fd, buf, sizeof buf); });
  if (n > 0) {
    into->append(buf, static_cast<std::size_t>(n));
    return ReadResult::Data;
  }
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && wouldBlock) {
    *wouldBlock = true;
    return ReadResult::Data;
  }
  return ReadResult::End;
}

// Takes what is already in the pipe without waiting for more.
void drainBuffered(kd::UniqueFd& fd, std::string* into) {
  if (!fd) return;
  int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags >= 0) ::fcntl(fd.get(), F_SETFL, flags | O_NONBLOCK);
  for (;;) {
    bool wouldBlock = false;
    if (readOnce(fd.get(), into, &wouldBlock) == ReadResult::End || wouldBlock) break;
  }
  fd.reset();
}

}  // namespace

// Requires mutex_.
void KdTask::wake() {
  if (!wakeWriter_) return;
  const char byte = 1;
  // Non-blocking; a full wake pipe already says the same thing.
  [[maybe_unused]] ssize_t n =
      kd::retryOnEintr([&] { return ::write(wakeWriter_.get(), &byte, 1); });
}

void KdTask::stopReading() {
  std::lock_guard lock(mutex_);
  stopped_.store(true);
  wake();
}

void KdTask::closeStreams() {
  std::lock_guard lock(mutex_);
  stopped_.store(true);
  outReader_.reset();
  errReader_.reset();
  wakeReader_.reset();
  wakeWriter_.reset();
}

std::string KdTask::readAvailableData(Stream stream) {
  std::string chunk;
  kd::UniqueFd& fd = reader(stream);
  while (fd && !stopped_.load()) {
    pollfd fds[2] = {{fd.get(), POLLIN, 0}, {wakeReader_.get(), POLLIN, 0}};
    int r = kd::retryOnEintr([&] { return ::poll(fds, 2, -1); });
    if (r < 0 || (fds[1].revents & POLLIN)) break;
    if (fds[0].revents == 0) continue;
    if (readOnce(fd.get(), &chunk) == ReadResult::End) fd.reset();
    return chunk;
  }
  // Stopped: what is still in the pipe is dropped with it.
  fd.reset();
  return chunk;
}

void KdTask::readToEnd(std::string* output, std::string* error) {
  std::string* sinks[2] = {output, error};
  kd::UniqueFd* fds[2] = {&outReader_, &errReader_};
  for (;;) {
    pollfd pfds[3];
    int streamOf[3];
    nfds_t n = 0;
    for (int s = 0; s < 2; ++s) {
      if (*fds[s]) {
        pfds[n] = {fds[s]->get(), POLLIN, 0};
        streamOf[n++] = s;
      }
    }
    if (n == 0) return;
    const nfds_t streams = n;
    pfds[n++] = {wakeReader_.get(), POLLIN, 0};
    int r = kd::retryOnEintr([&] { return ::poll(pfds, n, -1); });
    if (r < 0 || stopped_.load() || (pfds[streams].revents & POLLIN)) break;
    for (nfds_t i = 0; i < streams; ++i) {
      if (pfds[i].revents == 0) continue;
      const int s = streamOf[i];
      std::string scratch;
      if (readOnce(fds[s]->get(), sinks[s] ? sinks[s] : &scratch) == ReadResult::End) {
        fds[s]->reset();
      }
    }
  }
  for (int s = 0; s < 2; ++s) {
    std::string scratch;
    drainBuffered(*fds[s], sinks[s] ? sinks[s] : &scratch);
  }
}
