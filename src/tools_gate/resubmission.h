// How long a request that the host wants submitted again is submitted again: without limit in ordinary times, and for a
// second at most where the host could otherwise hold up the end of the process or the release of the console.
#pragma once

#include <chrono>
#include <optional>

namespace qel {

// What a host gets for one request once there is a limit.
inline constexpr std::chrono::seconds kTgResubmissionLimit{1};

// Sets the limit for good: a stop was requested, or the worker has ended. Safe in a signal handler, and from any
// thread.
void TgLimitResubmission();

// Sets the limit while the service is being stopped because the console went (true), and lifts it when the service
// starts again (false). From any thread.
void TgLimitResubmissionWhileStopping(bool stopping);

// Lifts both limits. For tests, which share a process.
void TgLiftResubmissionLimits();

// One request's share of that, asked before each further submission.
class TgResubmission {
 public:
  // Whether to try once more. Under a limit the time counts from the first question; a limit that was lifted meanwhile
  // leaves nothing behind.
  bool KeepTrying();

 private:
  std::optional<std::chrono::steady_clock::time_point> deadline_;
};

}  // namespace qel
