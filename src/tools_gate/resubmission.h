// How long a request that the host wants submitted again is submitted again: without limit in ordinary times, and for a
// second at most where the host could otherwise hold up the end of the process or the release of the console.
#pragma once

#include <chrono>
#include <functional>
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

// For the calling thread, which has something else to look after: asked once a second before a request is submitted
// again; when it says no, the request is given up. Empty: nothing is asked.
void TgAskBeforeResubmitting(std::function<bool()> may_go_on);

// Lifts both limits. For tests, which share a process.
void TgLiftResubmissionLimits();

// One request's share of that, asked before each further submission.
class TgResubmission {
 public:
  // Whether to try once more. Without a limit the thread's question decides. Under a limit the time counts from the
  // first question; a limit that was lifted meanwhile leaves nothing behind.
  bool KeepTrying();

 private:
  std::optional<std::chrono::steady_clock::time_point> deadline_;
  std::optional<std::chrono::steady_clock::time_point> next_question_;
};

}  // namespace qel
