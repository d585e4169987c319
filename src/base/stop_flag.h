// Tells other threads that something is over: that they are to stop, or that somebody has stopped.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qel {

// Clear at first. All functions may be called from any thread; Set() and IsSet() from a signal handler, too.
//
// What a thread did before Set() is seen by whoever finds the flag set. A flag must not be cleared while somebody still
// waits for it.
class StopFlag {
 public:
  void Clear() { state_.store(kClear); }
  void Set();  // wakes all who wait; may be called again

  // A loop asks this before it goes on.
  bool IsSet() const { return state_.load() == kSet; }

  void Wait() const;
  // Waits at most this long; returns whether the flag is set.
  bool WaitFor(std::chrono::nanoseconds time) const;

  // Sets the flag at the end of a scope, also where pthread_exit() ends it.
  class SetAtScopeEnd {
   public:
    explicit SetAtScopeEnd(StopFlag& flag) : flag_(flag) {}
    ~SetAtScopeEnd() { flag_.Set(); }
    SetAtScopeEnd(const SetAtScopeEnd&) = delete;
    SetAtScopeEnd& operator=(const SetAtScopeEnd&) = delete;

   private:
    StopFlag& flag_;
  };

 private:
  using State = std::uint32_t;  // what the kernel can wait for
  static constexpr State kClear = 0;
  static constexpr State kSet = 1;

  std::atomic<State> state_{kClear};
  static_assert(std::atomic<State>::is_always_lock_free && sizeof(std::atomic<State>) == sizeof(State));
};

}  // namespace qel
