// The outcome KdFileManager keeps for lastFailureReason,
// lastFailureNeedsRights and lastAttributesNotKept: the operations below it
// answer with kd::Result; its public calls, whose answers are booleans, note
// here on the calling thread why they failed.
//
// Per thread: each thread sees only what its own last operation noted.
#pragma once

#include <string>
#include <vector>

#include "common/Error.h"

namespace kd::files {

// Forgets the last failure and the attributes not kept: an operation begins.
void clearLastFailure();
// Notes why the operation failed and whether the rights it lacked would have
// helped. Answers false, the public calls' answer for a failure.
bool failWith(const Error& error, bool needsRights = false);
// Notes the failure of a system call, whose rights errors rights would mend.
bool failWithCode(int code);
// The extended attributes a copy or move could not keep (copyTree's notes).
void noteAttributesNotKept(std::vector<std::string> notes);

}  // namespace kd::files
