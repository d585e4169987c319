// Decides how long a request is submitted again while the host asks for it. The device handle, the link and the
// hypervisor call all use this. Normally there is no limit. When the host could delay the end of the process or the
// release of the console, a request is tried for one more second.
#pragma once

#include <chrono>
#include <functional>
#include <optional>

namespace qel {

// How long one request is still tried when there is a limit.
inline constexpr std::chrono::seconds kTgResubmissionLimit{1};

// Sets the limit permanently: a stop was requested, or the worker has ended. Any thread and any signal handler may call
// it.
void TgLimitResubmission();

// Sets the limit (true) while the service stops because this session has lost the console, and removes it (false) when
// the service starts again. Any thread may call it.
void TgLimitResubmissionWhileStopping(bool stopping);

// Sets a function for requests of the calling thread. While there is no limit, it is called once per second before a
// request is submitted again; when it returns false, the request is given up. An empty function removes it.
void TgAskBeforeResubmitting(std::function<bool()> may_go_on);

// Removes both limits. For tests that run in one process.
void TgLiftResubmissionLimits();

// The decision for one request. Created before its first submission; used by one thread.
class TgResubmission {
 public:
  // Must be called before each further submission; returns whether to submit again. The time of a limit starts with the
  // first call after the limit was set. When a limit is removed and set again, the time starts again.
  bool KeepTrying();

 private:
  std::optional<std::chrono::steady_clock::time_point> deadline_;
  std::optional<std::chrono::steady_clock::time_point> next_question_;
};

}  // namespace qel
