// The programs that were started for the host and have not shown a window yet.
#pragma once

#include <sys/types.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace qel {

// A table from process id to the path that the host has sent. Any thread may use it. The launcher holds Lock() during
// fork(), so that the entry of a child exists before the child can be reaped.
class LaunchedProcessTable {
 public:
  [[nodiscard]] std::unique_lock<std::mutex> Lock() { return std::unique_lock(launched_lock_); }

  // Adds a child; replaces an older entry with the same id. `held` is the lock that was taken before fork().
  void Add(const std::unique_lock<std::mutex>& held, pid_t pid, std::string path);

  // Removes a process that has shown a window.
  void Erase(pid_t pid);

  // Removes a process that has ended and returns its path; nullopt when it has shown a window. `held` is the lock under
  // which the process was reaped: after the release of the lock a new child may have the same id.
  [[nodiscard]] std::optional<std::string> Take(const std::unique_lock<std::mutex>& held, pid_t pid);

 private:
  std::mutex launched_lock_;
  std::map<pid_t, std::string> table_;
};

}  // namespace qel
