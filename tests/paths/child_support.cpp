#include "child_support.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/UniqueFd.h"
#include "support/ChildMode.h"

extern char** environ;

namespace kd::test {

ChildRun runChildMode(const std::string& mode, const std::vector<std::string>& args,
                      const std::vector<std::string>* env) {
  ChildRun run;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return run;
  UniqueFd readEnd(fds[0]);
  UniqueFd writeEnd(fds[1]);
  std::string self = selfExecutable();
  std::vector<std::string> all = {self, "--kd-child", mode};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv, envp;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  if (env) {
    for (const auto& e : *env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
  pid_t pid = -1;
  int rc =
      posix_spawn(&pid, self.c_str(), &actions, nullptr, argv.data(), env ? envp.data() : environ);
  posix_spawn_file_actions_destroy(&actions);
  writeEnd.reset();
  if (rc != 0) return run;
  char buf[4096];
  for (ssize_t n; (n = read(readEnd.get(), buf, sizeof buf)) > 0;) run.out.append(buf, n);
  int status = 0;
  if (waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

}  // namespace kd::test
