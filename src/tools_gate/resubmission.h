// How long a request that the host wants submitted again is submitted again. Device handle, link and hypervisor call
// all ask here. Ordinarily there is no limit. Where the host could hold up the end of the process or the release of the
// console, a request gets one more second.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace qel {

// How long one request is tried once there is a limit.
inline constexpr std::chrono::seconds kTgResubmissionLimit{1};

// Sets the limit for good: a stop was requested, or the worker has ended. Any thread and any signal handler may call
// it.
void TgLimitResubmission();

// Sets the limit (true) while the service is being stopped because the console went, and lifts it (false) when the
// service starts again. Any thread may call it.
void TgLimitResubmissionWhileStopping(bool stopping);

// Sets a question for the calling thread, which has something else to look after. While there is no limit it is asked
// once a second before a request is submitted again; when it says no, the request is given up. Empty: nothing is asked.
void TgAskBeforeResubmitting(std::function<bool()> may_go_on);

// Lifts both limits. For tests, which share a process.
void TgLiftResubmissionLimits();

// The decision for one request. Made when the request is first submitted; used by one thread.
class TgResubmission {
 public:
  // Whether to submit once more; to be asked before each further submission. Under a limit the time counts from the
  // first question under it. A limit that was lifted in between does not count.
  bool KeepTrying();

 private:
  std::optional<std::chrono::steady_clock::time_point> deadline_;
  std::optional<std::chrono::steady_clock::time_point> next_question_;
};

}  // namespace qel
