#include "tools_service/base_service_control.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

#include "base/respondent.h"
#include "log/log.h"
#include "tools_gate/device.h"
#include "tools_gate/resubmission.h"
#include "tools_service/guarded_callback.h"

namespace qel {
namespace {

// The control whose worker is the calling thread; null in all other threads.
thread_local const QelBaseServiceControl* t_worker_of = nullptr;

// How long Run() waits for the end of the worker: after a stop was requested, and then, plus one poll period, after the
// connection was closed.
constexpr std::chrono::seconds kPatienceWithWorker{2};
constexpr std::chrono::seconds kPatienceWithoutConnection{1};

}  // namespace

QelBaseServiceControl::QelBaseServiceControl(const char* display_kind, WallClock now)
    : display_kind_(display_kind), now_(now) {}

bool QelBaseServiceControl::Init(key_t key, bool own_user_session) {
  if (initialised_) {
    LogError(kModuleService, "Error: Tools Service: can't initialize (service already initialized)");
    return false;
  }
  if (State() != kServiceIdle) {
    LogError(kModuleService, "Error: Tools Service: can't initialize (not idle state %d)", static_cast<int>(State()));
    return false;
  }
  initialised_ = true;
  context_ = {};
  if (!semaphore_.Open(key)) {
    LogError(kModuleService, "Error: Tools Service: can't open semaphore");
    return false;
  }
  own_user_session_ = own_user_session;
  display_name_.clear();
  ResumeAsking();
  TgDeviceHandleOpen();  // an error is ignored: the services can run without the gate, and check it themselves
  return true;
}

bool QelBaseServiceControl::Deinit() {
  if (!initialised_) {
    LogInfo(kModuleService, "Tools Service: skip deinitialize (service not initialized)");
    return true;
  }
  if (State() == kServiceRunning) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize (service started yet)");
    return false;
  }
  initialised_ = false;
  pipes_.clear();
  poll_set_.clear();
  TgDeviceHandleClose();
  return true;
}

bool QelBaseServiceControl::IsRegistered(const ServiceDescriptor* descriptor) const {
  return std::ranges::find(services_, descriptor) != services_.end();
}

bool QelBaseServiceControl::AddService(ServiceDescriptor* descriptor) {
  if (State() == kServiceRunning) {
    LogError(kModuleService, "Error: Tools Service: can't add service (service thread started)");
    return false;
  }
  if (IsRegistered(descriptor)) {
    LogError(kModuleService, "Error: Tools Service: add pipe (invalid service)");
    return false;
  }
  services_.push_back(descriptor);
  return true;
}

void QelBaseServiceControl::Stop() {
  TgLimitResubmission();
  StopAsking();
  if (State() != kServiceStopping) {
    LogInfo(kModuleService, "Tools Service: stopping service...");
    state_.exchange(kServiceStopping);
  } else {
    LogWarning(kModuleService, "Warning: Tools Service: service already %s",
               worker_exists_.load() ? "stopping..." : "stopped");
  }
  run_is_over_.Set();
}

ServicePipe* QelBaseServiceControl::AddPipe(ServiceDescriptor* descriptor) {
  if (!IsRegistered(descriptor)) {
    LogError(kModuleService, "Error: Tools Service: add pipe (invalid service)");
    return nullptr;
  }
  for (const auto& pipe : pipes_) {
    if (pipe->owner == descriptor) {
      return pipe.get();
    }
  }
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    LogError(kModuleService, "Error: Tools Service: creating pipe");
    return nullptr;
  }
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  poll_set_.push_back({ends[0], POLLIN | POLLOUT, 0});
  return pipes_.emplace_back(new ServicePipe{FileDescriptor(ends[0]), FileDescriptor(ends[1]), descriptor}).get();
}

void QelBaseServiceControl::Run(std::uint32_t period_ms) {
  if (!StartWorkerThread(period_ms)) {
    return;
  }
  run_is_over_.Wait();
  bool ended = worker_ended_.WaitFor(kPatienceWithWorker);
  if (!ended) {
    LogWarning(kModuleService, "Warning: Tools Service: the display's connection is closed under the worker thread");
    BreakConnection();
    ended = worker_ended_.WaitFor(kPatienceWithoutConnection + std::chrono::milliseconds(period_ms));
  }
  if (!ended) {
    LogError(kModuleService, "Error: Tools Service: the worker thread does not end");
    worker_stuck_ = true;
    pthread_detach(worker_);
    return;
  }
  pthread_join(worker_, nullptr);
  worker_exists_.store(false);
  TgLimitResubmission();  // also when the worker has ended without a stop request, because the process ends now
}

bool QelBaseServiceControl::StartWorkerThread(std::uint32_t period_ms) {
  run_is_over_.Clear();  // before the state is read, because Stop() sets the state first and then this flag
  worker_ended_.Clear();
  if (State() != kServiceIdle) {
    LogWarning(kModuleService, "Warning: Tools Service: can't start service worker thread (not idle state %d)",
               static_cast<int>(State()));
    return false;
  }
  poll_period_ms_.store(period_ms);
  worker_exists_.store(true);
  const int error = pthread_create(&worker_, nullptr, WorkerThread, this);
  if (error != 0) {
    worker_exists_.store(false);
    state_.exchange(kServiceIdle);
    LogError(kModuleService, "Error: Tools Service: can't start service worker thread (err = %d)", error);
  }
  return error == 0;
}

void* QelBaseServiceControl::WorkerThread(void* self) {
  auto& control = *static_cast<QelBaseServiceControl*>(self);
  const StopFlag::SetAtScopeEnd run_is_over(control.run_is_over_);
  const StopFlag::SetAtScopeEnd worker_ended(control.worker_ended_);
  t_worker_of = &control;
  bool served_to_the_end = false;
  try {
    served_to_the_end = control.InitWorkerThread() && control.WorkerLoop();
  } catch (const std::exception& error) {
    LogError(kModuleService, "Error: Tools Service: worker thread failed: %s", error.what());
  }
  control.Cleanup();
  if (served_to_the_end) {
    control.ReleaseConsole();
    control.LogWithSession("worker thread stopped", ".");
  }
  return nullptr;
}

bool QelBaseServiceControl::InitWorkerThread() {
  if (State() != kServiceIdle) {
    LogWarning(kModuleService, "Warning: Tools Service: can't initialize worker thread (not idle state %d)!",
               static_cast<int>(State()));
    return false;
  }
  if (!Connect()) {
    LogWarning(kModuleService, "Warning: Tools Service: can't initialize %s worker thread!", display_kind_);
    return false;
  }
  LogInfo(kModuleService, "Tools Service: %s worker thread initialized.", display_kind_);
  return true;
}

bool QelBaseServiceControl::IsWorkerThread() const {
  return t_worker_of == this;
}

void QelBaseServiceControl::Cleanup() {
  if (!IsWorkerThread()) {
    LogWarning(kModuleService, "Warning: Tools Service: skip cleanup (wrong thread)");
    return;
  }
  LogInfo(kModuleService, "Tools Service: performing cleanup...");
  int failed = 0;
  // A service is removed from the list before its stop callback runs. When the callback finds the connection lost, this
  // function is called again and must not stop the same service twice.
  while (!services_.empty()) {
    ServiceDescriptor& service = *services_.front();
    services_.erase(services_.begin());
    if (std::exchange(service.active, false) && !Guarded(service, "stop", [&] { return service.stop(context_); })) {
      ++failed;
    }
  }
  if (failed != 0) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize all components properly");
  }
  state_.exchange(kServiceIdle);
  if (context_.display != nullptr) {
    Disconnect();
    context_.display = nullptr;
    context_.control_extension_opcode = 0;
    LogInfo(kModuleService, "Tools Service: %s service cleanup completed", display_kind_);
  }
}

}  // namespace qel
