// The command that tdlhost runs.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace qel::host {

// Starts the command (searched in PATH) in a new process group, with no input, the output of this process, an empty
// signal mask and default signal actions. Returns its process id, or -1 and sets `error` to an errno value.
pid_t StartCommandProcess(const std::vector<std::string>& command, int& error);

// Converts a status of waitpid() to an exit status like that of a shell.
int ShellStatus(int wait_status);

}  // namespace qel::host
