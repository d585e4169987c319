// What the host wants done to windows, queued for the worker thread: only it may use the X connection.
#pragma once

#include <deque>
#include <mutex>
#include <utility>
#include <variant>

#include "apps/registry.h"

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

// First in, first out. Requests are executed without the queue's lock held.
class WindowRequestQueue {
 public:
  void QueueWindowRequest(WindowRequest request) {
    const std::lock_guard guard(queue_lock_);
    queue_.push_back(std::move(request));
  }

  // Takes everything queued so far.
  [[nodiscard]] std::deque<WindowRequest> TakeAll() {
    const std::lock_guard guard(queue_lock_);
    return std::exchange(queue_, {});
  }

 private:
  std::mutex queue_lock_;
  std::deque<WindowRequest> queue_;
};

}  // namespace qel
