// The command that tdlhost runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qel::host {

// Starts the command (looked up in PATH) as the leader of a new process group, with no input, our output, an empty
// signal mask and default signal actions. Returns its process id, or -1 and an errno value.
pid_t StartCommandProcess(const std::vector<std::string>& command, int& error);

// An exit status as a shell gives it, from what waitpid() says.
int ShellStatus(int wait_status);

}  // namespace qel::host
