// What is to be done about windows.
#pragma once

#include <X11/Xlib.h>

#include <cstddef>
#include <deque>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

namespace qel {

// A set of tasks for each window, one bit each, in the order in which the windows were noted. A task that is noted and
// not taken yet is not noted twice, so the list never takes more room than the windows that there are. Worker thread
// only.
class WindowTasks {
 public:
  void Note(Window window, unsigned tasks) {
    if (!tasks_.contains(window)) {
      // Windows that were forgotten are still in the order.
      constexpr std::size_t kSparePlaces = 1024;
      if (order_.size() > 2 * tasks_.size() + kSparePlaces) {
        std::erase_if(order_, [this](Window noted) { return !tasks_.contains(noted); });
      }
      order_.push_back(window);
    }
    tasks_[window] |= tasks;
  }

  // These tasks do not have to be done any more. The window keeps its place.
  void Drop(Window window, unsigned tasks) {
    if (const auto noted = tasks_.find(window); noted != tasks_.end()) {
      noted->second &= ~tasks;
    }
  }

  // Nothing has to be done about the window any more.
  void Forget(Window window) { tasks_.erase(window); }

  // Takes the next window with its tasks, perhaps none; nothing when no window is left.
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

 private:
  std::unordered_map<Window, unsigned> tasks_;
  std::deque<Window> order_;  // windows that are not in tasks_ are passed over
};

}  // namespace qel
