// The lock file that keeps two agents out of one user session.
#pragma once

#include <string>

#include "base/file_descriptor.h"

namespace qel {

// A write lock on a file in the user's run-time directory, named after the session's display. The kernel gives it back
// when the process dies. The file is never deleted: an agent that waits for the lock may have it open, and would hold
// the lock of a file that nobody else sees.
//
// Locks of this kind belong to the process: a second object for the same display does not exclude the first.
class SessionLock {
 public:
  SessionLock() = default;
  SessionLock(const SessionLock&) = delete;
  SessionLock& operator=(const SessionLock&) = delete;

  // True when the lock is held, now or already before; otherwise false, with the reason logged.
  bool Acquire(const std::string& display_name);
  void Release();

 private:
  void TryLock(const std::string& display_name);

  FileDescriptor file_;  // open: the lock is held
};

}  // namespace qel
