#include "base/stop_flag.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

#include "base/time_units.h"

namespace qel {

// A mutex and a condition variable would not do: a signal handler may not use them.
void StopFlag::Set() {
  state_.store(kSet);
  syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, INT_MAX);
}

void StopFlag::Wait() const {
  while (!IsSet()) {
    syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, kClear, nullptr);
  }
}

bool StopFlag::WaitFor(std::chrono::nanoseconds time) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + time;
  while (!IsSet()) {
    const auto left = deadline - Clock::now();
    if (left <= left.zero()) {
      return false;
    }
    const timespec timeout = ToTimespec(left);
    syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, kClear, &timeout);  // may end early
  }
  return true;
}

}  // namespace qel
