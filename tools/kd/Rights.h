// What kd's file commands share: the options about administrator rights, the
// password (never from the command line or the environment), and running a
// library operation first as the user and then, where it failed for lack of
// rights, with the fall-back.
//
// Single-threaded: used from main only.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>

namespace kd::tool {

struct RightsOptions {
  bool noAuth = false;            // --no-auth: never ask for rights
  std::optional<int> passwordFd;  // --password-fd N: the password's first line
};

// Adds --password-fd, and --no-auth when the command offers it.
void addRightsOptions(CLI::App* command, RightsOptions& options, bool withNoAuth);

// Gives the library's messages a log (kd.1.log) where this user has a log
// folder, and keeps the library from asking for rights on its own; call once
// at the start of a command.
void openCommandLog();

// Runs `operation(shouldAuth)` for `what` (a path, for the message). An
// ordinary user gets a session of administrator rights only when the
// operation failed for lack of rights: the password comes from the
// descriptor, else from the terminal without echo. Prints
// "kd COMMAND: WHAT: REASON" on standard error when it fails.
bool runWithRights(const std::string& command, const std::string& what, RightsOptions& options,
                   const std::function<bool(bool shouldAuth)>& operation);

// Prints "kd COMMAND: WHAT: REASON" with the library's reason for the last
// failure.
void reportFailure(const std::string& command, const std::string& what);

// Prints "kd COMMAND: ITEM: extended attributes not kept by the destination:
// NAMES" for a note of KdFileManager::lastAttributesNotKept ("ITEM: NAMES").
void reportAttributesNotKept(const std::string& command, const std::string& note);

}  // namespace kd::tool
