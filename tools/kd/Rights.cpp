#include "Rights.h"

#include <fcntl.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include <iostream>

#include "auth/KdAuthorization.h"
#include "common/UniqueFd.h"
#include "files/KdFileManager.h"
#include "log/KdLog.h"
#include "paths/KdLocalPaths.h"
#include "platform/Platform.h"

namespace kd::tool {

namespace {

// A password that is wiped when it goes. Owns its text, held where the
// session is given it, so that no copy of it is made on the way; room is
// made up front so that reading it never leaves a shorter copy behind in a
// freed buffer. One thread.
class Secret {
 public:
  Secret() { text_->reserve(4096); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { wipe(); }
  std::string& text() { return *text_; }
  // The form the session takes (by reference: nothing is copied).
  const KdAuthorization::OptString& given() const { return text_; }
  void wipe() {
    // Everything the buffer holds, not only the current text.
    text_->resize(text_->capacity());
    ::explicit_bzero(text_->data(), text_->size());
    text_->clear();
  }

 private:
  KdAuthorization::OptString text_{std::string()};
};

// Reads one line from `fd`, a byte at a time so that nothing after it is
// taken. False when nothing could be read.
bool readLine(int fd, std::string& out) {
  bool any = false;
  for (char c;;) {
    const ssize_t n = retryOnEintr([&] { return ::read(fd, &c, 1); });
    if (n <= 0) return any;
    any = true;
    if (c == '\n') return true;
    out.push_back(c);
  }
}

// Asks on the terminal with echo off; false without a terminal.
bool askTerminal(const std::string& user, std::string& out) {
  UniqueFd tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  if (!tty) return false;
  struct termios saved {};
  if (::tcgetattr(tty.get(), &saved) != 0) return false;
  struct termios quiet = saved;
  quiet.c_lflag &= static_cast<tcflag_t>(~(ECHO | ECHOE | ECHOK | ECHONL));
  const std::string prompt = "kd: administrator rights needed; password for " + user + ": ";
  if (::write(tty.get(), prompt.data(), prompt.size()) < 0) return false;
  ::tcsetattr(tty.get(), TCSAFLUSH, &quiet);
  const bool read = readLine(tty.get(), out);
  ::tcsetattr(tty.get(), TCSAFLUSH, &saved);
  if (::write(tty.get(), "\n", 1) < 0) return read;
  return read;
}

// A session of administrator rights for this run; false, after saying why,
// when none can be had.
bool startSession(const std::string& command, const std::string& what, RightsOptions& options) {
  KdAuthorization& auth = KdAuthorization::sharedController(false);
  if (auth.isAuthorized()) return true;
  const std::string user = platform().userName().value_or("");
  Secret password;
  bool given = false;
  if (options.passwordFd) {
    given = readLine(*options.passwordFd, password.text());
    // The descriptor gives one password, for one try.
    options.passwordFd.reset();
  } else {
    given = askTerminal(user, password.text());
  }
  if (!given) {
    std::cerr << "kd " << command << ": " << what << ": " << KdFileManager::lastFailureReason()
              << "; administrator rights need a password, and there is no terminal to ask "
                 "on (use --password-fd N)"
              << std::endl;
    return false;
  }
  const bool started = auth.authStartWithUser(user, password.given());
  password.wipe();
  if (!started)
    std::cerr << "kd " << command << ": " << what
              << ": administrator rights were refused (wrong password, or " << user
              << " may not use sudo)" << std::endl;
  return started;
}

}  // namespace

void addRightsOptions(CLI::App* command, RightsOptions& options, bool withNoAuth) {
  if (withNoAuth)
    command->add_flag("--no-auth", options.noAuth,
                      "Never ask for administrator rights: fail where they are needed");
  command
      ->add_option("--password-fd", options.passwordFd,
                   "Read the password for administrator rights from this descriptor\n"
                   "(its first line) instead of the terminal")
      ->check(CLI::NonNegativeNumber);
}

void openCommandLog() {
  // Rights are asked for by kd (runWithRights), on the terminal, never by a
  // prompt of the library's own in the middle of an operation.
  KdAuthorization::sharedController(false);
  if (KdLocalPaths::logDirectory(true)) KdLog::createNewLog(std::string("kd"));
}

void reportFailure(const std::string& command, const std::string& what) {
  std::string reason = KdFileManager::lastFailureReason();
  if (reason.empty()) reason = "failed (see the log kd.1.log)";
  std::cerr << "kd " << command << ": " << what << ": " << reason << std::endl;
}

void reportAttributesNotKept(const std::string& command, const std::string& note) {
  // Split at the last ": ": an item's path may hold one, an attribute name
  // seldom does.
  const std::size_t split = note.rfind(": ");
  const std::string item = split == std::string::npos ? note : note.substr(0, split);
  const std::string names = split == std::string::npos ? "" : note.substr(split + 2);
  std::cerr << "kd " << command << ": " << item
            << ": extended attributes not kept by the destination: " << names << std::endl;
}

bool runWithRights(const std::string& command, const std::string& what, RightsOptions& options,
                   const std::function<bool(bool)>& operation) {
  // The library must never put up a prompt of its own here.
  KdAuthorization::sharedController(false);
  if (KdLocalPaths::isRoot()) {
    if (operation(!options.noAuth)) return true;
    reportFailure(command, what);
    return false;
  }
  if (operation(false)) return true;
  if (options.noAuth || !KdFileManager::lastFailureNeedsRights()) {
    reportFailure(command, what);
    return false;
  }
  if (!startSession(command, what, options)) return false;
  if (operation(true)) return true;
  std::cerr << "kd " << command << ": " << what << ": " << KdFileManager::lastFailureReason()
            << ", also with administrator rights" << std::endl;
  return false;
}

}  // namespace kd::tool
