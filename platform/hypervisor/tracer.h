// Runs a command under ptrace and answers the hypervisor calls of its processes and threads.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "hypervisor/call_channel.h"

namespace qel::hypervisor {

// Starts the command (looked up in PATH), follows it and everything it starts, and returns when the command itself has
// ended: its exit status, or 128 and the number of the signal that ended it, as a shell has it. 127 when it cannot be
// started. SIGTERM, SIGINT and SIGHUP sent to this process are passed on to the command. All signals but the faults of
// answered calls reach the processes as ever.
int RunTraced(const std::vector<std::string>& command, CallChannel& channel);

}  // namespace qel::hypervisor
