// Waits for a condition, with a deadline.
#pragma once

#include <chrono>
#include <functional>

namespace qel::test {

// Calls `condition` repeatedly until it is true or the time is over. Returns its last result. Only for changes without
// a notification: if there is a descriptor or a thread to wait for, wait for that.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(30'000));

}  // namespace qel::test
