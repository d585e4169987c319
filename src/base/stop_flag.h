// A flag between threads: a request to stop, or the message that a thread has stopped.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qel {

// A new flag is clear. Any thread may call all functions; a signal handler may call Set() and IsSet().
//
// A thread that finds the flag set also sees all memory writes that another thread made before Set(). A flag must not
// be cleared while a thread waits for it.
class StopFlag {
 public:
  void Clear() { state_.store(kClear); }
  void Set();  // wakes all waiting threads; may be called again

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
  using State = std::uint32_t;  // the size that a futex needs
  static constexpr State kClear = 0;
  static constexpr State kSet = 1;

  std::atomic<State> state_{kClear};
  static_assert(std::atomic<State>::is_always_lock_free && sizeof(std::atomic<State>) == sizeof(State));
};

}  // namespace qel
