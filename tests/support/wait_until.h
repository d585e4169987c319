// Waiting for something to come true, with a deadline.
#pragma once

#include <chrono>
#include <functional>

namespace qel::test {

// Looks at `condition` again and again until it holds or the time is up; returns what it said last. For conditions that
// nothing announces; where a descriptor or a thread can be waited for, wait for that.
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(30'000));

}  // namespace qel::test
