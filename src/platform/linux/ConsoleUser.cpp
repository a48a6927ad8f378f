// The user at the machine's console: the active session of seat0 when
// systemd-logind runs, else the utmp entry of the console line.
#include <signal.h>
#include <systemd/sd-login.h>
#include <unistd.h>
#include <utmpx.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/Passwd.h"

namespace kd {

namespace {

using OptString = std::optional<std::string>;

struct FreeDeleter {
  void operator()(char* p) const { std::free(p); }
};
using CString = std::unique_ptr<char, FreeDeleter>;

// Display managers log their greeter in under an account of their own while
// nobody is logged in; like macOS's login window it is nobody.
bool isGreeterAccount(std::string_view name) {
  static constexpr std::array<std::string_view, 5> kGreeters = {"gdm", "Debian-gdm", "lightdm",
                                                                "sddm", "gnome-initial-setup"};
  for (std::string_view g : kGreeters)
    if (name == g) return true;
  return false;
}

OptString userNameOf(uid_t uid) {
  if (auto entry = passwdByUid(uid)) return entry->name;
  return std::nullopt;
}

bool logindRuns() {
  return access("/run/systemd/seats/", F_OK) == 0;
}

OptString logindConsoleUser() {
  char* rawSession = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active("seat0", &rawSession, &uid) < 0 || !rawSession) return std::nullopt;
  CString session(rawSession);
  char* rawClass = nullptr;
  if (sd_session_get_class(session.get(), &rawClass) >= 0 && rawClass) {
    CString sessionClass(rawClass);
    if (std::strcmp(sessionClass.get(), "greeter") == 0) return std::nullopt;
  }
  return userNameOf(uid);
}

bool processAlive(pid_t pid) {
  if (pid <= 0) return true;  // nothing to check against
  return kill(pid, 0) == 0 || errno == EPERM;
}

// The utmp entry of the graphical display, the console or the first virtual
// terminal, in that order of preference; entries of ended sessions are skipped.
OptString utmpConsoleUser() {
  // The utmp reader keeps its place in static state.
  static std::mutex utmpLock;
  std::lock_guard lock(utmpLock);
  static constexpr std::array<std::string_view, 3> kLines = {":0", "console", "tty1"};
  OptString best;
  std::size_t bestRank = kLines.size();
  setutxent();
  while (const struct utmpx* entry = getutxent()) {
    if (entry->ut_type != USER_PROCESS) continue;
    std::string_view line(entry->ut_line, strnlen(entry->ut_line, sizeof entry->ut_line));
    std::size_t rank = 0;
    while (rank < kLines.size() && kLines[rank] != line) ++rank;
    if (rank >= bestRank || !processAlive(entry->ut_pid)) continue;
    std::string user(entry->ut_user, strnlen(entry->ut_user, sizeof entry->ut_user));
    if (user.empty()) continue;
    best = std::move(user);
    bestRank = rank;
  }
  endutxent();
  return best;
}

}  // namespace

std::optional<std::string> LinuxPlatform::consoleUser() {
  OptString user = logindRuns() ? logindConsoleUser() : utmpConsoleUser();
  if (user && isGreeterAccount(*user)) return std::nullopt;
  return user;
}

}  // namespace kd
