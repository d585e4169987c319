// Conversions between the time units of the standard library and those of system calls.
#pragma once

#include <chrono>
#include <ctime>

namespace qel {

using Seconds = std::chrono::duration<double>;

// `time` must not be negative.
inline timespec ToTimespec(std::chrono::nanoseconds time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  return {.tv_sec = static_cast<std::time_t>(seconds.count()), .tv_nsec = static_cast<long>((time - seconds).count())};
}

}  // namespace qel
