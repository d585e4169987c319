// The main loop of the worker thread.
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

constexpr double kTimeSlack = 0.001;  // seconds by which a due time may be early
constexpr double kWaitSeconds = 1;    // between two checks of a console that belongs to another session

// Sleeps, in whole microseconds. A signal may end the sleep early; all callers check the state next.
void Sleep(double seconds) {
  const timespec duration = ToTimespec(std::chrono::duration_cast<std::chrono::microseconds>(Seconds(seconds)));
  nanosleep(&duration, nullptr);
}

}  // namespace

double SystemWallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  // volatile: the x87 registers of 32-bit processors have more precision than a stored double. Without it a later time
  // could compare as less than an earlier time that was stored.
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
  int failed = 0;  // never reset: after one failed service every resume logs the warning
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
    // A host that never accepts a message must not prevent the release of the console.
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

// Returns false when a stop was requested meanwhile.
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

// Returns false when a stop was requested meanwhile, or when the semaphore cannot be used.
bool QelBaseServiceControl::WaitForOwnership() {
  while (!semaphore_.TryWait()) {
    const int error = errno;
    if (State() != kServiceRunning || error != EAGAIN) {
      return false;
    }
    Sleep(kWaitSeconds);
    ReadBacklog();  // also notices the loss of the display
  }
  owns_console_.store(true);
  return true;
}

bool QelBaseServiceControl::InitService(ServiceDescriptor& service) {
  service.active = Guarded(service, "init", [&] { return service.init(context_); });
  return service.active;
}

// Returns the number of services that failed.
int QelBaseServiceControl::InitServices() {
  int failed = 0;
  for (ServiceDescriptor* service : services_) {
    failed += InitService(*service) ? 0 : 1;
  }
  next_retry_ = SteadyClock::now() + retry_pause_;
  return failed;
}

// When the retry pause is over, tries again to initialise the services that may succeed later.
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
    if (!HasBacklog()) {
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

// Polls the services that are due. A due time more than one period in the future is from before the clock was set back
// and counts as due.
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

// Calls the poll and work callbacks of the services, for at most one period. Remaining work is done in the next round,
// which then begins at once.
void QelBaseServiceControl::RunRound(double now, double next_due) {
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(PollPeriod());
  bool polled = false;
  bool more = true;
  while (more) {
    const bool has_backlog = HasBacklog();
    if (!has_backlog && !std::exchange(polled, true)) {
      PollDueServices(now, next_due);
    }
    if (State() != kServiceRunning) {
      return;
    }
    more = Work() || has_backlog;
    if (SteadyClock::now() >= deadline) {
      return;
    }
    if (has_backlog) {
      AwaitEvents();
    }
    if (more) {
      DispatchEvents();
    }
  }
}

bool QelBaseServiceControl::Work() {
  context_.has_backlog = HasBacklog();
  bool more = false;
  for (ServiceDescriptor* service : services_) {
    if (service->active && service->work) {
      more = Guarded(*service, "work", [&] { return service->work(context_); }) || more;
    }
  }
  return more;
}

// Called while this session does not own the console: events of windows that a service has watched before must not
// accumulate.
void QelBaseServiceControl::ReadBacklog() {
  DispatchIdleEvents();
  while (HasBacklog() && State() == kServiceRunning) {
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

// Sleeps until the end of the period. If services have pipes, also returns when one of them is written.
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

// The active flags are not changed here; the next init sets them.
void QelBaseServiceControl::StopServices() {
  for (ServiceDescriptor* service : services_) {
    if (service->active) {
      Guarded(*service, "stop", [&] { return service->stop(context_); });
    }
  }
}

void QelBaseServiceControl::ReleaseConsole() {
  if (owns_console_.exchange(false)) {  // only once: by the worker, or by the main thread for a stuck worker
    semaphore_.Post();
    LogWithSession("graphical console released");
  }
}

void QelBaseServiceControl::LogWithSession(const char* what, const char* after) const {
  LogInfo(kModuleService, "Tools Service: %s (%d:'%s')%s", what, static_cast<int>(getuid()), display_name_.c_str(),
          after);
}

}  // namespace qel
