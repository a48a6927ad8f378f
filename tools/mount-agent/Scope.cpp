#include "Scope.h"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>

#include "Journal.h"

extern char** environ;

namespace kd::agent {

namespace {

// How long the manager has to answer, and then to move this process.
constexpr std::uint64_t kCallTimeoutUs = 5'000'000;
constexpr auto kMoveWait = std::chrono::seconds(5);

bool inCgroupEndingWith(const std::string& name) {
  std::ifstream in("/proc/self/cgroup");
  for (std::string line; std::getline(in, line);) {
    if (line.size() >= name.size() + 1 &&
        line.compare(line.size() - name.size() - 1, name.size() + 1, "/" + name) == 0)
      return true;
  }
  return false;
}

}  // namespace

bool moveIntoOwnScope() {
  sd_bus* rawBus = nullptr;
  // No user bus: no user manager to ask (a session without systemd, or root
  // outside a login); the helper runs where the agent runs.
  if (sd_bus_open_user(&rawBus) < 0) return false;
  std::unique_ptr<sd_bus, sd_bus* (*)(sd_bus*)> bus(rawBus, sd_bus_flush_close_unref);

  const std::string unit = "app-ferrimo-helper-" + std::to_string(getpid()) + ".scope";
  sd_bus_message* rawMessage = nullptr;
  int r = sd_bus_message_new_method_call(bus.get(), &rawMessage, "org.freedesktop.systemd1",
                                         "/org/freedesktop/systemd1",
                                         "org.freedesktop.systemd1.Manager", "StartTransientUnit");
  std::unique_ptr<sd_bus_message, sd_bus_message* (*)(sd_bus_message*)> message(
      rawMessage, sd_bus_message_unref);
  // A bus without a running manager must not try to start one.
  if (r >= 0) r = sd_bus_message_set_auto_start(message.get(), 0);
  if (r >= 0) r = sd_bus_message_append(message.get(), "ss", unit.c_str(), "fail");
  if (r >= 0) r = sd_bus_message_open_container(message.get(), 'a', "(sv)");
  if (r >= 0)
    r = sd_bus_message_append(message.get(), "(sv)", "PIDs", "au", 1,
                              static_cast<std::uint32_t>(getpid()));
  if (r >= 0)
    r = sd_bus_message_append(message.get(), "(sv)", "Description", "s",
                              "FerrimoHelper run and the Ferrimo it starts");
  if (r >= 0)
    r = sd_bus_message_append(message.get(), "(sv)", "CollectMode", "s", "inactive-or-failed");
  if (r >= 0) r = sd_bus_message_close_container(message.get());
  if (r >= 0) r = sd_bus_message_append(message.get(), "a(sa(sv))", 0);
  if (r < 0) {
    report(Priority::Warning, "cannot ask for a scope of its own: %s", std::strerror(-r));
    return false;
  }
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  r = sd_bus_call(bus.get(), message.get(), kCallTimeoutUs, &error, &reply);
  sd_bus_message_unref(reply);
  if (r < 0) {
    // A bus without a systemd manager on it is the same as no manager.
    if (!sd_bus_error_has_name(&error, SD_BUS_ERROR_SERVICE_UNKNOWN) &&
        !sd_bus_error_has_name(&error, SD_BUS_ERROR_NAME_HAS_NO_OWNER))
      report(Priority::Warning, "the user manager gave no scope for the helper: %s",
             error.message ? error.message : std::strerror(-r));
    sd_bus_error_free(&error);
    return false;
  }
  sd_bus_error_free(&error);
  // The job that moves this process runs after the call returns.
  const auto until = std::chrono::steady_clock::now() + kMoveWait;
  while (!inCgroupEndingWith(unit)) {
    if (std::chrono::steady_clock::now() >= until) {
      report(Priority::Warning, "the helper was not moved into %s in time", unit.c_str());
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

int execInOwnScope(const std::vector<std::string>& argv) {
  if (argv.empty()) return 127;
  moveIntoOwnScope();
  std::vector<char*> cargv;
  for (const auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
  cargv.push_back(nullptr);
  ::execve(cargv[0], cargv.data(), environ);
  report(Priority::Error, "cannot start %s: %s", argv[0].c_str(), std::strerror(errno));
  return 127;
}

}  // namespace kd::agent
