// What the worker thread does between its start and its end.
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/time_units.h"
#include "log/log.h"
#include "tools_gate/resubmission.h"
#include "tools_service/base_service_control.h"
#include "tools_service/guarded_callback.h"

namespace qel {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr double kTimeSlack = 0.001;  // seconds by which something due may come early
constexpr double kWaitSeconds = 1;    // between two looks at a console that is not ours

// Sleeps whole microseconds, or less when a signal arrives: whoever sleeps here looks at the state next.
void Sleep(double seconds) {
  const timespec duration = ToTimespec(std::chrono::duration_cast<std::chrono::microseconds>(Seconds(seconds)));
  nanosleep(&duration, nullptr);
}

}  // namespace

double SystemWallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  // 32-bit processors keep more digits in their registers than a double has. A later time could seem to be before an
  // earlier one that was stored.
  const volatile double seconds =
      Seconds(std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_usec)).count();
  return seconds;
}

double QelBaseServiceControl::PeriodSeconds() const {
  return Seconds(std::chrono::milliseconds(PollPeriod())).count();
}

bool QelBaseServiceControl::WorkerLoop() {
  ServiceState found = kServiceIdle;
  if (!state_.compare_exchange_strong(found, kServiceRunning)) {
    LogWarning(kModuleService,
               "Warning: Tools Service: can't start worker thread (not idle state %d). Will exit now...",
               static_cast<int>(found));
    return false;
  }
  LogWithSession("worker thread started", ". . .");
  if (own_user_session_ && !OwnUserSession()) {
    LogError(kModuleService, "Error: Tools Service: can not own user session. Will exit now...");
    return false;
  }
  int failed = 0;  // never reset: once a service failed, each resume warns
  while (true) {
    bool suspended = false;
    if (!WaitForActiveConsole(suspended)) {
      LogInfo(kModuleService, "Tools Service: worker thread stopped (interrupted on wait graphic console).");
      return false;
    }
    LogWithSession("waiting for graphical console ownership", ". . .");
    if (!WaitForOwnership()) {
      LogInfo(kModuleService, "Tools Service: worker thread stopped (interrupted on wait graphic console ownership).");
      return false;
    }
    LogWithSession("graphical console owned");
    LogWithSession(suspended ? "resumed" : "started");
    // A host that never takes a message must not keep the console from being given away.
    TgAskBeforeResubmitting([this] { return IsConsoleActive(); });
    if (State() == kServiceRunning) {
      failed += InitServices();
      if (failed != 0) {
        LogWarning(kModuleService, "Warning: Tools Service: can't initialize all components");
      }
    }
    PollRounds();
    TgAskBeforeResubmitting({});
    if (State() != kServiceRunning) {
      return true;
    }
    StopServices();
    ReleaseConsole();
  }
}

// False when a stop was requested meanwhile.
bool QelBaseServiceControl::WaitForActiveConsole(bool& suspended) {
  for (ReadBacklog(); State() == kServiceRunning && !IsConsoleActive(); ReadBacklog()) {
    if (!suspended) {
      LogWithSession("suspended");
    }
    Sleep(kWaitSeconds);
    suspended = true;
  }
  return State() == kServiceRunning;
}

// False when a stop was requested meanwhile, or the semaphore is unusable.
bool QelBaseServiceControl::WaitForOwnership() {
  while (!semaphore_.TryWait()) {
    const int error = errno;
    if (State() != kServiceRunning || error != EAGAIN) {
      return false;
    }
    Sleep(kWaitSeconds);
    ReadBacklog();  // a display that goes away is noticed, too
  }
  owns_console_.store(true);
  return true;
}

bool QelBaseServiceControl::InitService(ServiceDescriptor& service) {
  service.active = Guarded(service, "init", [&] { return service.init(context_); });
  return service.active;
}

// Returns how many failed.
int QelBaseServiceControl::InitServices() {
  int failed = 0;
  for (ServiceDescriptor* service : services_) {
    failed += InitService(*service) ? 0 : 1;
  }
  next_retry_ = SteadyClock::now() + retry_pause_;
  return failed;
}

// Tries once more to initialise what failed and may succeed, when it is time to.
void QelBaseServiceControl::RetryInit() {
  if (SteadyClock::now() < next_retry_) {
    return;
  }
  for (ServiceDescriptor* service : services_) {
    if (!service->active && service->may_succeed_later) {
      InitService(*service);
    }
  }
  next_retry_ = SteadyClock::now() + retry_pause_;
}

// Serves until the console is lost or a stop is requested.
void QelBaseServiceControl::PollRounds() {
  const double period = PeriodSeconds();
  double start = now_();
  double elapsed = period;
  while (State() == kServiceRunning) {
    DispatchEvents();
    if (!IsBehind()) {
      if (!IsConsoleActive()) {
        return;
      }
      RetryInit();
    }
    const double now = now_();
    if (elapsed >= period - kTimeSlack) {
      elapsed = period;
      start = now;
    }
    RunRound(now, start + period);
    const double spent = now_() - now;
    if (elapsed < 0 || spent < 0) {  // the clock was set back
      for (ServiceDescriptor* service : services_) {
        service->next_due = 0;
      }
      elapsed = period;
      continue;
    }
    const double left = (elapsed < period ? period - elapsed : period) - spent;
    Rest(left, now);
    elapsed = now_() - start;
  }
}

// Due times further ahead than a period come from before the clock was set back.
void QelBaseServiceControl::PollDueServices(double now, double next_due) {
  for (ServiceDescriptor* service : services_) {
    const double due = service->next_due - kTimeSlack;
    const bool is_due = due <= now || due > now + PeriodSeconds();
    if (service->active && is_due) {
      Guarded(*service, "poll", [&] { return service->poll(context_), true; });
      service->next_due = next_due;
    }
  }
}

// Lets the services poll and work, for one period at most. What is left is done in the next round, which then begins at
// once.
void QelBaseServiceControl::RunRound(double now, double next_due) {
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(PollPeriod());
  bool polled = false;
  bool more = true;
  while (more) {
    const bool behind = IsBehind();
    if (!behind && !std::exchange(polled, true)) {
      PollDueServices(now, next_due);
    }
    if (State() != kServiceRunning) {
      return;
    }
    more = Work() || behind;
    if (SteadyClock::now() >= deadline) {
      return;
    }
    if (behind) {
      AwaitEvents();
    }
    if (more) {
      DispatchEvents();
    }
  }
}

bool QelBaseServiceControl::Work() {
  context_.behind = IsBehind();
  bool more = false;
  for (ServiceDescriptor* service : services_) {
    if (service->active && service->work) {
      more = Guarded(*service, "work", [&] { return service->work(context_); }) || more;
    }
  }
  return more;
}

// While the service is not active: events of windows that it watched before must not pile up.
void QelBaseServiceControl::ReadBacklog() {
  DispatchIdleEvents();
  while (IsBehind() && State() == kServiceRunning) {
    Work();
    AwaitEvents();
    DispatchEvents();
  }
}

void QelBaseServiceControl::HandOut(void* event) {
  for (ServiceDescriptor* service : services_) {
    if (service->active && service->event) {
      Guarded(*service, "event", [&] { return service->event(context_, event), true; });
    }
  }
}

// Sleeps to the end of the period or, where services have pipes, until one of them is written.
void QelBaseServiceControl::Rest(double seconds_left, double now) {
  if (seconds_left <= 0) {
    return;
  }
  if (poll_set_.empty()) {
    Sleep(PeriodSeconds());  // the whole period: the round's own time is not deducted
    return;
  }
  const auto timeout = std::chrono::duration_cast<std::chrono::milliseconds>(Seconds(seconds_left));
  if (poll(poll_set_.data(), poll_set_.size(), static_cast<int>(timeout.count())) > 0) {
    DrainPipes(now);
  }
}

void QelBaseServiceControl::DrainPipes(double now) {
  for (const auto& pipe : pipes_) {
    std::uint32_t value = 0;
    while (read(pipe->read_end.Get(), &value, sizeof value) == static_cast<ssize_t>(sizeof value)) {
      pipe->owner->next_due = now;
    }
  }
}

// The active flags stay as they are until the next init.
void QelBaseServiceControl::StopServices() {
  for (ServiceDescriptor* service : services_) {
    if (service->active) {
      Guarded(*service, "stop", [&] { return service->stop(context_); });
    }
  }
}

void QelBaseServiceControl::ReleaseConsole() {
  if (owns_console_.exchange(false)) {  // once, by the worker or, where that is stuck, for it
    semaphore_.Post();
    LogWithSession("graphical console released");
  }
}

void QelBaseServiceControl::LogWithSession(const char* what, const char* after) const {
  LogInfo(kModuleService, "Tools Service: %s (%d:'%s')%s", what, static_cast<int>(getuid()), display_name_.c_str(),
          after);
}

}  // namespace qel
