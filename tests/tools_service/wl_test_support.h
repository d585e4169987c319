// What the tests of Wayland sessions share.
#pragma once

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "support/child_process.h"

namespace qel::test {

// Runs a command line whose last command starts with "exec", so that the process is that command's.
inline std::unique_ptr<ChildProcess> Shell(const std::string& command) {
  ChildOptions options;
  options.arguments = {"sh", "-c", command};
  return std::make_unique<ChildProcess>(options);
}

// A console semaphore's key of this process's own; the set is removed with the object.
struct ConsoleKey {
  ~ConsoleKey() { semctl(semget(value, 1, 0), 0, IPC_RMID); }
  const key_t value = 0x51000000 + getpid();
};

}  // namespace qel::test
