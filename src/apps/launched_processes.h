// Programs started for the host that have not shown a window yet.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace qel {

// Process id to the path that the host named. May be used from any thread. The launcher holds Lock() across fork, so
// that a child's entry is there before its end can be looked up.
class LaunchedProcessTable {
 public:
  [[nodiscard]] std::unique_lock<std::mutex> Lock() { return std::unique_lock(launched_lock_); }

  // Files a child; an older entry of the same id is replaced. `held` is the lock taken before the fork.
  void Add(const std::unique_lock<std::mutex>& held, pid_t pid, std::string path);

  // Forgets a process: it has shown a window.
  void Erase(pid_t pid);

  // Forgets a process that has ended and returns its path; nothing when it had shown a window. `held` is the lock under
  // which the process was reaped: its id may belong to a new child as soon as the lock is released.
  [[nodiscard]] std::optional<std::string> Take(const std::unique_lock<std::mutex>& held, pid_t pid);

 private:
  std::mutex launched_lock_;
  std::map<pid_t, std::string> table_;
};

}  // namespace qel
