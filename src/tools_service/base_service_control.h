// The core of the Tools Service: a worker thread that waits for the graphical console, owns it as long as it belongs to
// this session, and calls the client services meanwhile.
//
// Several agents may run on one machine, one per desktop session. A System V semaphore lets one of them own the
// console; the kernel takes the ownership back from a process that dies.
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

// The wall clock, in seconds since the epoch. It may be set back while the worker runs.
using WallClock = double (*)();
double SystemWallClock();

// States of a control; the word is read plainly and written with atomic exchanges.
enum ServiceState : std::uint32_t { kServiceIdle = 0, kServiceRunning = 1, kServiceStopping = 2 };

// The controls of the kinds of display derive from this. Their operations are called on the worker thread, but for
// Init(), Deinit() and BreakConnection().
class QelBaseServiceControl {
 public:
  // `display_kind` is for messages, and stays the caller's.
  explicit QelBaseServiceControl(const char* display_kind, WallClock now = SystemWallClock);
  virtual ~QelBaseServiceControl() = default;
  QelBaseServiceControl(const QelBaseServiceControl&) = delete;
  QelBaseServiceControl& operator=(const QelBaseServiceControl&) = delete;

  // Opens the console semaphore of `key` and the gate's device handle. With `own_user_session` the worker claims the
  // user session through the display before it serves. False, with the reason logged, when it cannot be initialised.
  virtual bool Init(key_t key, bool own_user_session);

  // Releases what Init() and AddPipe() obtained; false while the worker runs. The semaphore stays in the system.
  virtual bool Deinit();

  // Appends a service; false while the worker runs or when the service was added before.
  bool AddService(ServiceDescriptor* descriptor);

  // Starts the worker thread and waits for its end. After a stop was requested it waits two seconds. Then it breaks the
  // connection to the display, which ends a wait for the display. A worker that waits for something else, and has not
  // ended soon after that, is left behind: see IsWorkerStuck().
  void Run(std::uint32_t period_ms);

  // The worker has not ended though Run() has returned. Nothing that it uses may be taken from it: what is left to do
  // is ReleaseConsole(), which lets another session's agent serve, and the end of the process.
  bool IsWorkerStuck() const { return worker_stuck_; }
  // Gives the console back if this agent owns it.
  void ReleaseConsole();

  // Asks the worker to end, and limits how long the gate submits a request again, so that no host can hold up a process
  // that stops. For good: a control that was stopped while idle starts no worker any more. May be called from any
  // thread and from a signal handler, at any time.
  void Stop();

  // The wake-up pipe of a registered service, created at the first call; null when it cannot be had. Owned by the
  // control, until Deinit().
  ServicePipe* AddPipe(ServiceDescriptor* descriptor);

  // Claims the user session for this process's user.
  virtual bool OwnUserSession() = 0;
  // Whether the graphical console is active for this session.
  virtual bool IsConsoleActive() = 0;

  ServiceState State() const { return state_.load(); }
  std::uint32_t PollPeriod() const { return poll_period_ms_; }

 protected:
  // Connects to the display; false, with the reason logged, when that fails. What it has set up until then is released
  // by Disconnect() if it includes the display of the context.
  virtual bool Connect() = 0;
  // Closes the connection to the display of the context. The services have ended then. Must not throw.
  virtual void Disconnect() = 0;
  // Ends the worker's wait for the display, if there is one, by taking the connection away. Called on another thread.
  virtual void BreakConnection() {}
  // Reads the display's pending events and hands them to the services.
  virtual void DispatchEvents() = 0;
  // The same while nobody is served, where events would pile up otherwise.
  virtual void DispatchIdleEvents() {}
  // More events wait at the display than were read so far.
  virtual bool IsBehind() const { return false; }
  // Waits for more of them, some milliseconds at most.
  virtual void AwaitEvents() {}

  // Ends the services and then the connection to the display. Does nothing but warn when it is not the worker thread
  // that calls. A service's stop callback that finds the connection lost ends up in here again: then the services that
  // are left are ended.
  void Cleanup();

  bool IsWorkerThread() const;

  // Hands an event to every active service that wants events.
  void HandOut(void* event);

  std::chrono::milliseconds retry_pause_ = std::chrono::seconds(5);  // between two tries to initialise a service
  ServiceContext context_;
  std::string display_name_;  // for messages

 private:
  bool IsRegistered(const ServiceDescriptor* descriptor) const;

  bool StartWorkerThread(std::uint32_t period_ms);
  static void* WorkerThread(void* self);
  bool InitWorkerThread();
  // Serves whenever the console is this session's, until a stop is requested. True when that happened while it served:
  // then the console is to be released after the clean-up.
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
  // Logs what happened, with the user and the display it happened to.
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
  StopFlag run_is_over_;  // a stop was requested, or the worker has ended by itself
  bool worker_stuck_ = false;
  std::chrono::steady_clock::time_point next_retry_;
  std::vector<ServiceDescriptor*> services_;
  std::vector<std::unique_ptr<ServicePipe>> pipes_;
  std::vector<pollfd> poll_set_;  // the pipes' read ends, in the order of pipes_
};

}  // namespace qel
