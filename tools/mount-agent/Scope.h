// Helper runs outside the agent's control group. The agent starts each run
// through itself ("ferrimo-mount-agent --in-scope HELPER ARGS..."): that
// process asks the systemd user manager for a transient scope holding itself,
// waits until it has been moved there, and only then becomes the helper. So
// the helper, and the Ferrimo it starts, never belong to the agent's service,
// and stopping or restarting the agent never stops an offload.
//
// Without a user manager (no user bus) the helper is simply executed where the
// agent runs. Stateless; called in the short-lived trampoline process only.
#pragma once

#include <string>
#include <vector>

namespace kd::agent {

// The first argument that makes the agent's executable the trampoline.
inline constexpr char kInScopeArgument[] = "--in-scope";

// Moves this process into a new scope of the user manager when one answers.
// True when it now runs in that scope; false (with a warning when a manager
// answered but refused) otherwise.
bool moveIntoOwnScope();

// moveIntoOwnScope, then executes argv (argv[0] is the program's path).
// Returns only when the program could not be executed: the exit status to end
// with (127).
int execInOwnScope(const std::vector<std::string>& argv);

}  // namespace kd::agent
