// The host's requests for windows. They are queued for the worker thread, because only the worker may use the X
// connection.
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
  WindowId window;  // a top-level window that was reported, or any window id that the host sends
};
struct MinimizeRequest {
  WindowId window;
};
struct CloseRequest {
  WindowPairSet windows;  // of one process
};
struct ReenumerateRequest {};

using WindowRequest = std::variant<ActivateRequest, MinimizeRequest, CloseRequest, ReenumerateRequest>;

// First in, first out. Any thread may call all functions. The lock is not held while a request is executed.
class WindowRequestQueue {
 public:
  void QueueWindowRequest(WindowRequest request) {
    const std::lock_guard guard(queue_lock_);
    queue_.push_back(std::move(request));
  }

  // Removes and returns the oldest request; nullopt when the queue is empty.
  [[nodiscard]] std::optional<WindowRequest> TakeFirst() {
    const std::lock_guard guard(queue_lock_);
    if (queue_.empty()) {
      return std::nullopt;
    }
    std::optional<WindowRequest> first(std::move(queue_.front()));
    queue_.pop_front();
    return first;
  }

  // The number of waiting requests.
  std::size_t Size() {
    const std::lock_guard guard(queue_lock_);
    return queue_.size();
  }

 private:
  std::mutex queue_lock_;
  std::deque<WindowRequest> queue_;
};

}  // namespace qel
