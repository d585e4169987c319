#include "base/stop_flag.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

#include "base/time_units.h"

namespace qel {
namespace {

// The futex call that takes the C library's timespec. 32-bit systems have one call for each size of time_t.
#ifdef SYS_futex_time64
constexpr long kFutex = sizeof(std::time_t) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long kFutex = SYS_futex;
#endif

}  // namespace

// Not a mutex with a condition variable, because a signal handler must not use them.
void StopFlag::Set() {
  state_.store(kSet);
  syscall(kFutex, &state_, FUTEX_WAKE_PRIVATE, INT_MAX);
}

void StopFlag::Wait() const {
  while (!IsSet()) {
    syscall(kFutex, &state_, FUTEX_WAIT_PRIVATE, kClear, nullptr);
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
    syscall(kFutex, &state_, FUTEX_WAIT_PRIVATE, kClear, &timeout);  // may end early
  }
  return true;
}

}  // namespace qel
