// The heart of the Tools Service: the worker thread that waits for the graphical console, owns it while it is this
// agent's, and meanwhile calls the client services.
//
// Several agents may run on one machine, one per desktop session. A System V semaphore lets one of them own the
// console; the kernel takes the ownership back from a process that dies.
#pragma once

#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools_service/console_semaphore.h"
#include "tools_service/service_types.h"

namespace qel {

// The wall clock, in seconds since the epoch. It may be set back while the worker runs.
using WallClock = double (*)();
double SystemWallClock();

// States of a control; the word is read plainly and written with atomic exchanges.
enum ServiceState : std::uint32_t { kServiceIdle = 0, kServiceRunning = 1, kServiceStopping = 2 };

class QelBaseServiceControl {
 public:
  explicit QelBaseServiceControl(WallClock now = SystemWallClock);
  virtual ~QelBaseServiceControl();
  QelBaseServiceControl(const QelBaseServiceControl&) = delete;
  QelBaseServiceControl& operator=(const QelBaseServiceControl&) = delete;

  // Opens the console semaphore of `key` and the gate's device handle. With `own_user_session` the worker claims the
  // user session through the display before it serves. False, with the reason logged, when it cannot be initialised.
  virtual bool Init(key_t key, bool own_user_session);

  // Releases what Init() and AddPipe() obtained; false while the worker runs. The semaphore stays in the system.
  virtual bool Deinit();

  // Appends a service; false while the worker runs or when it is in the list already.
  virtual bool AddService(ServiceDescriptor* descriptor);

  // Starts the worker thread and waits for its end. After a stop was requested it waits two seconds; then it breaks the
  // display's connection, which ends a wait for the display; and if the worker, that waits for something else then, has
  // not ended soon after, it returns all the same: see IsWorkerStuck().
  virtual void Run(std::uint32_t period_ms) = 0;

  // The worker has not ended though Run() has returned. Nothing that it uses may be taken from it: what is left to do
  // is ReleaseConsoleOfStuckWorker(), which lets another session's agent serve, and the end of the process.
  bool IsWorkerStuck() const { return worker_stuck_; }
  void ReleaseConsoleOfStuckWorker();

  // Asks the worker to end, and limits how long the gate submits a request again, so that no host can hold up a process
  // that stops. For good: a control that was stopped while idle starts no worker any more. May be called from any
  // thread and from a signal handler, at any time.
  virtual void Stop();

  // The wake-up pipe of a registered service, created at the first call; null when it cannot be had. Owned by the
  // control.
  virtual ServicePipe* AddPipe(ServiceDescriptor* descriptor);

  // Claims the user session for this process's user.
  virtual bool OwnUserSession() = 0;
  // Whether the graphical console is active for this session.
  virtual bool IsConsoleActive() = 0;
  virtual int ConnectionType() const = 0;

  ServiceState State() const { return state_.load(); }
  std::uint32_t PollPeriod() const { return poll_period_ms_; }

 protected:
  // The body of a worker thread; runs on it, with the control that started it.
  using WorkerRoutine = void (*)(QelBaseServiceControl&);

  // Creates the worker thread and joins it.
  virtual void StartWorkerThread(std::uint32_t period_ms, WorkerRoutine routine);
  // The worker thread's loop, from the claim of the console to the final clean-up.
  virtual void WorkerLoop(double period_seconds);
  // Reads the display's pending events and hands them to the services.
  virtual void DispatchEvents() = 0;
  // The same while nobody is served, where events would pile up otherwise.
  virtual void DispatchIdleEvents() {}
  // More events wait at the display than were read so far.
  virtual bool IsBehind() const { return false; }
  // Waits for more of them, some milliseconds at most.
  virtual void AwaitEvents() {}
  // Ends the worker's wait for the display, if there is one, by taking the connection away. Called on another thread.
  virtual void BreakConnection() {}
  // Connects the worker thread to the display. The base checks that the control is idle.
  virtual bool InitWorkerThread();
  // Ends every service; only on the worker thread. May be entered again from within a service's stop callback, when
  // that finds the display's connection lost, and then ends the services that are left.
  virtual void Cleanup();

  bool IsWorkerThread() const;

  // Hands an event to every active service that wants events.
  void HandOut(void* event);

  std::chrono::milliseconds retry_pause_ = std::chrono::seconds(5);  // between two tries to initialise a service
  ServiceContext context_;
  ServiceDescriptor* services_ = nullptr;  // in order of addition
  std::string display_name_;               // for messages

 private:
  ServicePipe* CreatePipe(ServiceDescriptor* descriptor);
  bool IsRegistered(const ServiceDescriptor* descriptor) const;

  static void* WorkerThread(void* start);
  void OnWorkerEnd();
  // Waits for the worker's end, at most for `patience` or, without it, until a stop is requested. Whether it has ended.
  bool AwaitWorkerEnd(std::optional<std::chrono::milliseconds> patience);

  // The phases of WorkerLoop().
  bool WaitForActiveConsole(bool& suspended);
  bool WaitForOwnership();
  bool InitService(ServiceDescriptor& service);
  int InitServices();
  void RetryInit();
  void PollRounds(double period_seconds);
  void ReadBacklog();
  void RunRound(double now, double period_seconds, double next_due);
  void PollDueServices(double now, double period_seconds, double next_due);
  bool Work();
  void Rest(double seconds_left, double period_seconds, double now);
  void DrainPipes(double now);
  void StopServices();
  void ReleaseConsole();
  // Logs what happened, with the user and the display it happened to.
  void LogWithSession(const char* what, const char* after = "") const;

  const WallClock now_;
  bool initialised_ = false;
  bool own_user_session_ = false;
  ConsoleSemaphore semaphore_;
  std::atomic<std::uint32_t> poll_period_ms_{0};
  std::atomic<ServiceState> state_{kServiceIdle};
  std::atomic<bool> worker_exists_{false};
  std::atomic<bool> worker_ended_{false};
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> owns_console_{false};
  sem_t worker_news_;  // posted when the worker has ended and when a stop is requested, in a signal handler too
  bool worker_stuck_ = false;
  std::chrono::steady_clock::time_point next_retry_;
  ServicePipe* pipes_ = nullptr;  // newest first
  std::vector<pollfd> poll_set_;  // one per pipe, in order of creation
  std::vector<ServiceDescriptor*> poll_owners_;
};

}  // namespace qel
