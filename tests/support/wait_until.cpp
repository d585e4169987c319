#include "support/wait_until.h"

#include <thread>

namespace qel::test {

bool WaitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() >= deadline) {
      return condition();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace qel::test
