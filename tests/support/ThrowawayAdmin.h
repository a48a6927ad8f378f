// A throwaway ordinary user with a password and a sudoers entry, for tests of
// administrator rights. Made and removed by the root side of a test (also
// when the test fails, and for runs that were killed before they could clean
// up); the user's side is a copy of the test program started as that user,
// running one test chosen by name with a line (the password) on its input.
//
// Ownership: the ThrowawayAdmin owns the user, the sudoers entry, the
// temporary folder and the user's processes. One thread.
#pragma once

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "common/Path.h"
#include "common/UniqueFd.h"
#include "platform/linux/Passwd.h"
#include "support/ChildMode.h"
#include "support/RunnableCopy.h"
#include "support/TempDir.h"
#include "tasks/KdTaskEx.h"

namespace kd::test {

// Set in the environment of the user's side: that it is the user's side, and
// the root-owned work folder.
inline constexpr char kAsAdmin[] = "KD_AUTH_AS_ADMIN";
inline constexpr char kWork[] = "KD_AUTH_WORK";

// `n` random letters and digits (for passwords of throwaway users).
inline std::string randomText(std::size_t n) {
  static constexpr char kChars[] = "abcdefghijkmnopqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
  std::string out(n, 'x');
  unsigned char bytes[64] = {};
  if (n > sizeof bytes || getrandom(bytes, n, 0) != static_cast<ssize_t>(n)) return {};
  for (std::size_t i = 0; i < n; ++i) out[i] = kChars[bytes[i] % (sizeof kChars - 1)];
  return out;
}

class ThrowawayAdmin {
 public:
  // `suite` names the test suite of the user's side.
  explicit ThrowawayAdmin(std::string password, std::string suite = "AsAdmin")
      : suite_(std::move(suite)),
        name_("kdauth" + std::to_string(::getpid())),
        sudoers_("/etc/sudoers.d/kdauth-test-" + std::to_string(::getpid())),
        password_(std::move(password)) {
    removeLeftovers();
    ::chmod(dir_.path().c_str(), 0755);
    home_ = dir_ / "home";
    work_ = dir_.mkdir("work");
    bin_ = dir_.mkdir("bin");
    if (passwdByName(name_)) return;  // never touch a user we did not make
    if (KdTaskEx::terminationCodeFromTask("/usr/sbin/useradd",
                                          {"-M", "-U", "-d", home_, "-s", "/bin/sh", name_}) != 0)
      return;
    created_ = true;
    struct passwd* pw = ::getpwnam(name_.c_str());
    if (!pw) return;
    uid_ = pw->pw_uid;
    gid_ = pw->pw_gid;
    // The password goes to chpasswd's input, never onto a command line.
    FILE* chpasswd = ::popen("/usr/sbin/chpasswd", "w");
    if (!chpasswd) return;
    std::fprintf(chpasswd, "%s:%s\n", name_.c_str(), password_.c_str());
    if (::pclose(chpasswd) != 0) return;
    std::filesystem::create_directories(home_);
    if (::chown(home_.c_str(), uid_, gid_) != 0 || ::chmod(home_.c_str(), 0700) != 0) return;
    const std::string self = selfExecutable();
    install(self);
    install(path::append(path::deletingLastComponent(self), "kd-privileged"));
    ready_ = setRule(false);
  }

  ~ThrowawayAdmin() {
    endProcesses();
    ::unlink(sudoers_.c_str());
    if (created_) KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {"-f", name_});
  }

  bool ready() const { return ready_; }
  const std::string& name() const { return name_; }
  const std::string& password() const { return password_; }
  const std::string& work() const { return work_; }
  const std::string& home() const { return home_; }
  // Where the copies of the programs the user runs lie.
  const std::string& bin() const { return bin_; }
  uid_t uid() const { return uid_; }
  std::string helper() const { return bin_ + "/kd-privileged"; }

  // Takes the user's sudoers entry away.
  bool removeRule() { return ::unlink(sudoers_.c_str()) == 0; }

  // The user may run anything as root, with or without being asked for a
  // password.
  bool setRule(bool noPassword) {
    const std::string rule = name_ + " ALL=(root) " + (noPassword ? "NOPASSWD: " : "") + "ALL\n";
    const std::string temporary = sudoers_ + ".tmp";  // sudo skips names with a dot
    {
      std::ofstream out(temporary);
      out << rule;
      if (!out) return false;
    }
    return ::chmod(temporary.c_str(), 0440) == 0 &&
           ::rename(temporary.c_str(), sudoers_.c_str()) == 0;
  }

  // Copies a program where the user can run it; its path there.
  std::string install(const std::string& program) const { return runnableCopy(program, bin_); }

  // Starts this program as the user, running AsAdmin.<test> with `input` on
  // its standard input; its output and error come back through `output`.
  // With `effectiveRoot` it keeps an effective user id of 0, as a program
  // started with rights would.
  pid_t start(const std::string& test, const std::string& input, UniqueFd* output,
              bool effectiveRoot = false) {
    const std::string program = bin_ + "/" + path::lastComponent(selfExecutable());
    return startProgram({program, "--gtest_filter=" + suite_ + "." + test}, input, output,
                        effectiveRoot);
  }

  // Starts a program as the user, with its arguments, the user's environment
  // and `input` on its standard input (followed by a line end); its output
  // and error come back through `output`.
  pid_t startProgram(std::vector<std::string> args, const std::string& input, UniqueFd* output,
                     bool effectiveRoot = false) {
    const uid_t effective = effectiveRoot ? 0 : uid_;
    std::vector<std::string> env = {"HOME=" + home_,
                                    "USER=" + name_,
                                    "LOGNAME=" + name_,
                                    "PATH=/usr/bin:/bin",
                                    std::string(kAsAdmin) + "=1",
                                    std::string(kWork) + "=" + work_};
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : env) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return -1;
    const pid_t pid = ::fork();
    if (pid == 0) {
      // A session of its own: no terminal to ask on, as under a service.
      ::setsid();
      if (::dup2(in[0], 0) < 0 || ::dup2(out[1], 1) < 0 || ::dup2(out[1], 2) < 0 ||
          ::setgroups(0, nullptr) != 0 || ::setresgid(gid_, gid_, gid_) != 0 ||
          ::setresuid(uid_, effective, effective) != 0 || ::chdir(home_.c_str()) != 0)
        ::_exit(126);
      ::execve(argv[0], argv.data(), envp.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    output->reset(out[0]);
    UniqueFd writer(in[1]);
    const std::string line = input + "\n";
    if (::write(writer.get(), line.data(), line.size()) < 0) return pid;
    return pid;
  }

  // startProgram, then finish: the exit status, and all the run wrote in `text`.
  int run(std::vector<std::string> args, const std::string& input, std::string* text) {
    UniqueFd output;
    const pid_t pid = startProgram(std::move(args), input, &output);
    return pid > 0 ? finish(pid, output, text) : -1;
  }

  // Waits for a started run; its exit status (-1 when it did not exit).
  static int finish(pid_t pid, UniqueFd& output, std::string* text) {
    char buf[4096];
    for (ssize_t n; (n = retryOnEintr([&] { return ::read(output.get(), buf, sizeof buf); })) > 0;)
      text->append(buf, static_cast<std::size_t>(n));
    int status = 0;
    if (::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

 private:
  // Users and sudoers entries of runs of this test that were killed before
  // they could clean up (their process no longer exists).
  static void removeLeftovers() {
    auto deadRun = [](const std::string& name, const std::string& prefix) {
      if (!name.starts_with(prefix)) return false;
      const std::string pid = name.substr(prefix.size(), name.find('.') - prefix.size());
      return !pid.empty() && pid.find_first_not_of("0123456789") == std::string::npos &&
             ::kill(std::stoi(pid), 0) != 0 && errno == ESRCH;
    };
    for (const auto& entry : std::filesystem::directory_iterator("/etc/sudoers.d"))
      if (deadRun(entry.path().filename(), "kdauth-test-")) ::unlink(entry.path().c_str());
    std::ifstream passwd("/etc/passwd");
    for (std::string line; std::getline(passwd, line);) {
      const std::string name = line.substr(0, line.find(':'));
      if (deadRun(name, "kdauth"))
        KdTaskEx::terminationCodeFromTask("/usr/sbin/userdel", {"-f", name});
    }
  }

  // Processes of the throwaway user, and co-processes started from our copy,
  // ended by their ids.
  void endProcesses() {
    if (!created_) return;
    for (int round = 0; round < 2; ++round) {
      for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code ec;
        const std::string exe = std::filesystem::read_symlink(entry.path() / "exe", ec);
        struct stat st {};
        const bool ours = ::stat(entry.path().c_str(), &st) == 0 && st.st_uid == uid_;
        if (ours || exe == helper()) ::kill(std::stoi(pid), SIGKILL);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }

  TempDir dir_;
  std::string suite_, name_, sudoers_, password_, home_, work_, bin_;
  uid_t uid_ = static_cast<uid_t>(-1);
  gid_t gid_ = static_cast<gid_t>(-1);
  bool created_ = false, ready_ = false;
};

}  // namespace kd::test
