// What the host wants done to windows, queued for the worker thread: only it may use the X connection.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "apps/running_app_registry.h"

namespace qel {

struct ActivateRequest {
  WindowId window;  // a top-level window as reported, or any window the host names
};
struct MinimizeRequest {
  WindowId window;
};
struct CloseRequest {
  WindowPairSet windows;  // of one process
};
struct ReenumerateRequest {};

using WindowRequest = std::variant<ActivateRequest, MinimizeRequest, CloseRequest, ReenumerateRequest>;

// First in, first out. Requests are executed without the queue's lock held. Every function from any thread.
class WindowRequestQueue {
 public:
  void QueueWindowRequest(WindowRequest request) {
    const std::lock_guard guard(queue_lock_);
    queue_.push_back(std::move(request));
  }

  // Takes the oldest one; nothing when none waits.
  [[nodiscard]] std::optional<WindowRequest> TakeFirst() {
    const std::lock_guard guard(queue_lock_);
    if (queue_.empty()) {
      return std::nullopt;
    }
    std::optional<WindowRequest> first(std::move(queue_.front()));
    queue_.pop_front();
    return first;
  }

  // The number that wait.
  std::size_t Size() {
    const std::lock_guard guard(queue_lock_);
    return queue_.size();
  }

 private:
  std::mutex queue_lock_;
  std::deque<WindowRequest> queue_;
};

}  // namespace qel
