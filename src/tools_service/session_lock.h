// The lock file that prevents two agents in one user session.
#pragma once

#include <string>

#include "base/file_descriptor.h"

namespace qel {

// A write lock on a file in XDG_RUNTIME_DIR that is named after the display of the session. The kernel releases the
// lock when the process dies. The file is never deleted: another agent may have it open and would then lock a file that
// new agents do not find.
//
// fcntl() locks belong to the process: two objects of one process for the same display do not exclude each other.
class SessionLock {
 public:
  SessionLock() = default;
  SessionLock(const SessionLock&) = delete;
  SessionLock& operator=(const SessionLock&) = delete;

  // Returns true when this object holds the lock, also when it held the lock before. Returns false, with the reason
  // logged, when the lock cannot be acquired. Does not wait.
  bool Acquire(const std::string& display_name);
  void Release();

 private:
  void TryLock(const std::string& display_name);

  FileDescriptor file_;  // open: the lock is held
};

}  // namespace qel
