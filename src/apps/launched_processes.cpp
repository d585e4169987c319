#include "apps/launched_processes.h"

#include <cassert>

namespace qel {

void LaunchedProcessTable::Add([[maybe_unused]] const std::unique_lock<std::mutex>& held, pid_t pid, std::string path) {
  assert(held.mutex() == &launched_lock_ && held.owns_lock());
  table_.insert_or_assign(pid, std::move(path));
}

void LaunchedProcessTable::Erase(pid_t pid) {
  const std::lock_guard guard(launched_lock_);
  table_.erase(pid);
}

std::optional<std::string> LaunchedProcessTable::Take([[maybe_unused]] const std::unique_lock<std::mutex>& held,
                                                      pid_t pid) {
  assert(held.mutex() == &launched_lock_ && held.owns_lock());
  auto entry = table_.extract(pid);
  if (entry.empty()) {
    return std::nullopt;
  }
  return std::move(entry.mapped());
}

}  // namespace qel
