// The System V semaphore that decides which agent of a machine owns the graphical console.
#pragma once

#include <sys/types.h>

namespace qel {

// Its value is 0 while no agent owns the console. When a process dies, the kernel releases its ownership. No function
// waits. Errors are logged. The object does not remove the semaphore from the system.
class ConsoleSemaphore {
 public:
  // Opens the semaphore with this key, or creates it. Returns false on failure.
  bool Open(key_t key);

  // Takes the ownership. Returns false on failure and sets errno: EAGAIN, which is not logged, when another agent has
  // the ownership.
  bool TryWait() const;

  // Releases the ownership. Returns false on failure.
  bool Post() const;

 private:
  int id_ = -1;
};

}  // namespace qel
