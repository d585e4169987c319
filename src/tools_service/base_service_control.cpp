#include "tools_service/base_service_control.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "log/log.h"
#include "tools_gate/device.h"

namespace qel {
namespace {

// The control whose worker the calling thread is.
thread_local const QelBaseServiceControl* t_worker_of = nullptr;

// What the worker thread gets to know at its start; lies with the thread that waits for it.
struct WorkerStart {
  QelBaseServiceControl& control;
  void (*routine)(QelBaseServiceControl&);
};

void* WorkerThread(void* argument) {
  const auto* start = static_cast<const WorkerStart*>(argument);
  t_worker_of = &start->control;
  start->routine(start->control);
  return nullptr;
}

}  // namespace

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
  TgDeviceHandleOpen();  // without a gate the services still run, unheard
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
  while (pipes_ != nullptr) {
    const ServicePipe* pipe = pipes_;
    pipes_ = pipe->next;
    close(pipe->read_end);
    close(pipe->write_end);
    delete pipe;
  }
  poll_set_.clear();
  poll_owners_.clear();
  TgDeviceHandleClose();
  return true;
}

bool QelBaseServiceControl::IsRegistered(const ServiceDescriptor* descriptor) const {
  const ServiceDescriptor* service = services_;
  while (service != nullptr && service != descriptor) {
    service = service->next;
  }
  return service != nullptr;
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
  ServiceDescriptor** end = &services_;
  while (*end != nullptr) {
    end = &(*end)->next;
  }
  *end = descriptor;
  descriptor->next = nullptr;
  return true;
}

void QelBaseServiceControl::Stop() {
  TgStopResubmitting();
  if (State() != kServiceStopping) {
    LogInfo(kModuleService, "Tools Service: stopping service...");
    state_.exchange(kServiceStopping);
  } else {
    LogWarning(kModuleService, "Warning: Tools Service: service already %s",
               worker_exists_.load() ? "stopping..." : "stopped");
  }
}

ServicePipe* QelBaseServiceControl::AddPipe(ServiceDescriptor* descriptor) {
  if (!IsRegistered(descriptor)) {
    LogError(kModuleService, "Error: Tools Service: add pipe (invalid service)");
    return nullptr;
  }
  for (ServicePipe* pipe = pipes_; pipe != nullptr; pipe = pipe->next) {
    if (pipe->owner == descriptor) {
      return pipe;
    }
  }
  return CreatePipe(descriptor);
}

ServicePipe* QelBaseServiceControl::CreatePipe(ServiceDescriptor* descriptor) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    LogError(kModuleService, "Error: Tools Service: creating pipe");
    return nullptr;
  }
  fcntl(ends[0], F_SETFL, O_NONBLOCK);
  pipes_ = new ServicePipe{ends[0], ends[1], descriptor, pipes_};
  poll_set_.push_back({ends[0], POLLIN | POLLOUT, 0});
  poll_owners_.push_back(descriptor);
  return pipes_;
}

void QelBaseServiceControl::StartWorkerThread(std::uint32_t period_ms, WorkerRoutine routine) {
  if (State() != kServiceIdle) {
    LogWarning(kModuleService, "Warning: Tools Service: can't start service worker thread (not idle state %d)",
               static_cast<int>(State()));
    return;
  }
  poll_period_ms_.store(period_ms);
  worker_exists_.store(true);
  WorkerStart start{*this, routine};
  pthread_t worker{};
  const int error = pthread_create(&worker, nullptr, WorkerThread, &start);
  if (error != 0) {
    worker_exists_.store(false);
    state_.exchange(kServiceIdle);
    LogError(kModuleService, "Error: Tools Service: can't start service worker thread (err = %d)", error);
    return;
  }
  pthread_join(worker, nullptr);
  worker_exists_.store(false);
}

bool QelBaseServiceControl::InitWorkerThread() {
  if (State() != kServiceIdle) {
    LogWarning(kModuleService, "Warning: Tools Service: can't initialize worker thread (not idle state %d)!",
               static_cast<int>(State()));
    return false;
  }
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
  // Each service leaves the list before its stop runs: a stop that meets a lost connection ends up here again.
  while (services_ != nullptr) {
    ServiceDescriptor* service = services_;
    services_ = std::exchange(service->next, nullptr);
    if (std::exchange(service->active, false) && !service->stop(context_)) {
      ++failed;
    }
  }
  if (failed != 0) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize all components properly");
  }
  state_.exchange(kServiceIdle);
}

}  // namespace qel
