// The core of the Tools Service: a worker thread that waits for the graphical console, owns it while it belongs to this
// session, and calls the client services during that time.
//
// Several agents may run on one machine, one per desktop session. Only one of them can own the console, which a System
// V semaphore ensures. When a process dies, the kernel releases its ownership.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/stop_flag.h"
#include "tools_service/console_semaphore.h"
#include "tools_service/service_types.h"

namespace qel {

// A function that returns the wall clock time in seconds since the epoch. The clock may be set back while the worker
// runs.
using WallClock = double (*)();
double SystemWallClock();

// States of a control.
enum ServiceState : std::uint32_t { kServiceIdle = 0, kServiceRunning = 1, kServiceStopping = 2 };

// Base class of the controls for X11 and Wayland. Their virtual functions are called on the worker thread, except
// Init(), Deinit() and BreakConnection().
class QelBaseServiceControl {
 public:
  // `display_kind` is used in log messages. It is not copied and must outlive this object.
  explicit QelBaseServiceControl(const char* display_kind, WallClock now = SystemWallClock);
  virtual ~QelBaseServiceControl() = default;
  QelBaseServiceControl(const QelBaseServiceControl&) = delete;
  QelBaseServiceControl& operator=(const QelBaseServiceControl&) = delete;

  // Opens the console semaphore with this key, and the device handle of the gate. With `own_user_session` the worker
  // calls OwnUserSession() before it serves. Returns false, with the reason logged, when it cannot be initialised.
  virtual bool Init(key_t key, bool own_user_session);

  // Releases what Init() and AddPipe() have created. Returns false while the worker runs. The semaphore is not removed
  // from the system.
  virtual bool Deinit();

  // Adds a service. The caller owns the descriptor, which must outlive the worker. Returns false while the worker runs,
  // or when the service was added before.
  bool AddService(ServiceDescriptor* descriptor);

  // Starts the worker thread and waits for its end. When the worker has not ended two seconds after a stop request,
  // Run() closes the connection to the display, which ends a wait for the display. When the worker has not ended one
  // second and one poll period later, Run() returns without it: see IsWorkerStuck(). The period is in milliseconds.
  void Run(std::uint32_t period_ms);

  // Run() has returned, but the worker has not ended. Objects that the worker uses must not be destroyed. The caller
  // should call ReleaseConsole(), so that the agent of another session can serve, and end the process.
  bool IsWorkerStuck() const { return worker_stuck_; }
  // Releases the console if this agent owns it. Called by the worker, or for a worker that is stuck.
  void ReleaseConsole();

  // Asks the worker to end, and limits how long requests are submitted again, so that the host cannot delay the end of
  // the process. Permanent: a control that was stopped while idle starts no worker any more. Any thread and any signal
  // handler may call it at any time.
  void Stop();

  // Returns the wake-up pipe of a registered service, which the first call creates; null, with an error logged, when it
  // cannot be created. The control owns it until Deinit().
  ServicePipe* AddPipe(ServiceDescriptor* descriptor);

  // Claims the user session for the user of this process. Returns false when that is refused.
  virtual bool OwnUserSession() = 0;
  // Whether the graphical console is active for this session.
  virtual bool IsConsoleActive() = 0;

  ServiceState State() const { return state_.load(); }
  std::uint32_t PollPeriod() const { return poll_period_ms_; }

 protected:
  // Connects to the display. Returns false, with the reason logged, when that fails. If it has already set the display
  // of the context by then, Disconnect() is called and must release everything.
  virtual bool Connect() = 0;
  // Closes the connection to the display of the context. The services have ended then. Must not throw.
  virtual void Disconnect() = 0;
  // Closes the connection so that a worker that waits for the display returns. Called on another thread.
  virtual void BreakConnection() {}
  // Reads the pending events of the display and passes them to the services.
  virtual void DispatchEvents() = 0;
  // The same while the console is not owned, for displays whose events would otherwise accumulate.
  virtual void DispatchIdleEvents() {}
  // The display has more events than were read so far.
  virtual bool HasBacklog() const { return false; }
  // Waits for more events, for a few milliseconds at most.
  virtual void AwaitEvents() {}

  // Stops the services and then closes the connection to the display. On other threads than the worker it only logs a
  // warning. When a stop callback finds the connection lost, Cleanup() is called again from inside of it and stops the
  // remaining services.
  void Cleanup();

  bool IsWorkerThread() const;

  // Passes an event to every active service that has an event callback.
  void HandOut(void* event);

  std::chrono::milliseconds retry_pause_ = std::chrono::seconds(5);  // between two tries to initialise a service
  ServiceContext context_;
  std::string display_name_;  // for log messages

 private:
  bool IsRegistered(const ServiceDescriptor* descriptor) const;

  bool StartWorkerThread(std::uint32_t period_ms);
  static void* WorkerThread(void* self);
  bool InitWorkerThread();
  // Serves whenever the console belongs to this session, until a stop is requested. Returns true when the stop came
  // while it was serving; then the console must be released after the cleanup.
  bool WorkerLoop();

  double PeriodSeconds() const;

  // The phases of WorkerLoop().
  bool WaitForActiveConsole(bool& suspended);
  bool WaitForOwnership();
  bool InitService(ServiceDescriptor& service);
  int InitServices();
  void RetryInit();
  void PollRounds();
  void ReadBacklog();
  void RunRound(double now, double next_due);
  void PollDueServices(double now, double next_due);
  bool Work();
  void Rest(double seconds_left, double now);
  void DrainPipes(double now);
  void StopServices();
  // Logs `what` with the user id and the display name, followed by `after`.
  void LogWithSession(const char* what, const char* after = "") const;

  const char* const display_kind_;
  const WallClock now_;
  bool initialised_ = false;
  bool own_user_session_ = false;
  ConsoleSemaphore semaphore_;
  std::atomic<std::uint32_t> poll_period_ms_{0};
  std::atomic<ServiceState> state_{kServiceIdle};
  std::atomic<bool> worker_exists_{false};
  std::atomic<bool> owns_console_{false};
  pthread_t worker_{};
  StopFlag worker_ended_;
  StopFlag run_is_over_;  // a stop was requested, or the worker has ended without one
  bool worker_stuck_ = false;
  std::chrono::steady_clock::time_point next_retry_;
  std::vector<ServiceDescriptor*> services_;
  std::vector<std::unique_ptr<ServicePipe>> pipes_;
  std::vector<pollfd> poll_set_;  // the pipes' read ends, in the order of pipes_
};

}  // namespace qel
