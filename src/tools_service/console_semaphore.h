// The System V semaphore by which the agents of a machine agree on who owns the graphical console.
#pragma once

#include <sys/types.h>

namespace qel {

// Its value is 0 while nobody owns the console. Failures are logged; the kernel releases the ownership of a process
// that dies. No operation waits.
class ConsoleSemaphore {
 public:
  // Opens the set of the key, creating it where there is none.
  bool Open(key_t key);

  // Takes the ownership. On failure errno says why: EAGAIN when somebody has it, which is not logged.
  bool TryWait() const;

  // Gives the ownership back.
  bool Post() const;

 private:
  int id_ = -1;
};

}  // namespace qel
