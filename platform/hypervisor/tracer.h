// Runs a command under ptrace and answers the hypervisor calls of its processes and threads.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "hypervisor/call_channel.h"

namespace qel::hypervisor {

// Starts the command (searched in PATH), traces it and all processes and threads that it starts, and returns when the
// command itself has ended. Returns its exit status, or, like a shell, 128 plus the number of the signal that ended it;
// 127 when it cannot be started. SIGTERM, SIGINT and SIGHUP are forwarded to the command. The traced processes get all
// their signals, except the faults of answered calls.
int RunTraced(const std::vector<std::string>& command, CallChannel& channel);

}  // namespace qel::hypervisor
