// The list of tasks that the window tracker has to do.
#pragma once

#include <X11/Xlib.h>

#include <cstddef>
#include <deque>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/spare_room.h"

namespace qel {

// A set of tasks, one bit each, for each window, in the order in which the windows were noted. Noting a task again
// before it is taken has no effect, so the memory is limited by the number of windows. Worker thread only.
class WindowTasks {
 public:
  void Note(Window window, unsigned tasks) {
    if (!tasks_.contains(window)) {
      // order_ still contains windows that were forgotten; remove them when there are many.
      constexpr std::size_t kSparePlaces = 1024;
      if (order_.size() > 2 * tasks_.size() + kSparePlaces) {
        std::erase_if(order_, [this](Window noted) { return !tasks_.contains(noted); });
      }
      order_.push_back(window);
    }
    tasks_[window] |= tasks;
  }

  // Removes these tasks. The window keeps its place in the order.
  void Drop(Window window, unsigned tasks) {
    if (const auto noted = tasks_.find(window); noted != tasks_.end()) {
      noted->second &= ~tasks;
    }
  }

  // Removes all tasks of the window.
  void Forget(Window window) { tasks_.erase(window); }

  // Removes and returns the next window and its tasks (0 when all were dropped); nullopt when there is no window.
  std::optional<std::pair<Window, unsigned>> Take() {
    while (!order_.empty()) {
      const Window window = order_.front();
      order_.pop_front();
      if (const auto noted = tasks_.extract(window)) {
        return std::pair(window, noted.mapped());
      }
    }
    return std::nullopt;
  }

  bool GiveBackSpareRoom() { return qel::GiveBackSpareRoom(tasks_); }

 private:
  std::unordered_map<Window, unsigned> tasks_;
  std::deque<Window> order_;  // windows that are not in tasks_ are skipped
};

}  // namespace qel
