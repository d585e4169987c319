#include "tools_service/base_service_control.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <exception>
#include <memory>
#include <utility>

#include "base/respondent.h"
#include "log/log.h"
#include "tools_gate/device.h"
#include "tools_gate/resubmission.h"
#include "tools_service/guarded_callback.h"

namespace qel {
namespace {

// The control whose worker the calling thread is.
thread_local const QelBaseServiceControl* t_worker_of = nullptr;

// How long the worker may take to end by itself once it was asked to, and once its connection was broken, beyond a poll
// period.
constexpr std::chrono::seconds kPatienceWithWorker{2};
constexpr std::chrono::seconds kPatienceWithoutConnection{1};

// What the worker thread gets to know at its start. It is the worker's.
struct WorkerStart {
  QelBaseServiceControl& control;
  void (*routine)(QelBaseServiceControl&);
};

// Calls `end` when a thread leaves the scope, by pthread_exit() too.
template <typename End>
class AtScopeEnd {
 public:
  explicit AtScopeEnd(End end) : end_(std::move(end)) {}
  ~AtScopeEnd() { end_(); }
  AtScopeEnd(const AtScopeEnd&) = delete;
  AtScopeEnd& operator=(const AtScopeEnd&) = delete;

 private:
  End end_;
};

timespec MonotonicTimeAfter(std::chrono::milliseconds time) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto nanoseconds = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec) + time;
  const auto seconds = std::chrono::floor<std::chrono::seconds>(nanoseconds);
  return {.tv_sec = static_cast<std::time_t>(seconds.count()),
          .tv_nsec = static_cast<long>((nanoseconds - seconds).count())};
}

}  // namespace

QelBaseServiceControl::QelBaseServiceControl(WallClock now) : now_(now) {
  sem_init(&worker_news_, 0, 0);
}

QelBaseServiceControl::~QelBaseServiceControl() {
  sem_destroy(&worker_news_);
}

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
  TgLimitResubmission();
  StopAsking();
  if (State() != kServiceStopping) {
    LogInfo(kModuleService, "Tools Service: stopping service...");
    state_.exchange(kServiceStopping);
  } else {
    LogWarning(kModuleService, "Warning: Tools Service: service already %s",
               worker_exists_.load() ? "stopping..." : "stopped");
  }
  stop_requested_.store(true);
  sem_post(&worker_news_);
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
  stop_requested_.store(false);  // a stop from before has left its state
  if (State() != kServiceIdle) {
    LogWarning(kModuleService, "Warning: Tools Service: can't start service worker thread (not idle state %d)",
               static_cast<int>(State()));
    return;
  }
  poll_period_ms_.store(period_ms);
  worker_exists_.store(true);
  worker_ended_.store(false);
  auto start = std::make_unique<WorkerStart>(WorkerStart{*this, routine});
  pthread_t worker{};
  const int error = pthread_create(&worker, nullptr, WorkerThread, start.get());
  if (error != 0) {
    worker_exists_.store(false);
    state_.exchange(kServiceIdle);
    LogError(kModuleService, "Error: Tools Service: can't start service worker thread (err = %d)", error);
    return;
  }
  start.release();
  bool ended = AwaitWorkerEnd(std::nullopt) || AwaitWorkerEnd(kPatienceWithWorker);
  if (!ended) {
    LogWarning(kModuleService, "Warning: Tools Service: the display's connection is closed under the worker thread");
    BreakConnection();
    ended = AwaitWorkerEnd(kPatienceWithoutConnection + std::chrono::milliseconds(period_ms));
  }
  if (!ended) {
    LogError(kModuleService, "Error: Tools Service: the worker thread does not end");
    worker_stuck_ = true;
    pthread_detach(worker);
    return;
  }
  pthread_join(worker, nullptr);
  worker_exists_.store(false);
  TgLimitResubmission();  // also when the worker has ended by itself: nothing but the end of the process is left
}

void* QelBaseServiceControl::WorkerThread(void* argument) {
  const std::unique_ptr<const WorkerStart> start(static_cast<const WorkerStart*>(argument));
  QelBaseServiceControl& control = start->control;
  const AtScopeEnd at_end([&control] { control.OnWorkerEnd(); });
  t_worker_of = &control;
  try {
    start->routine(control);
  } catch (const std::exception& error) {
    LogError(kModuleService, "Error: Tools Service: worker thread failed: %s", error.what());
    control.Cleanup();
  }
  return nullptr;
}

void QelBaseServiceControl::OnWorkerEnd() {
  worker_ended_.store(true);
  sem_post(&worker_news_);
}

bool QelBaseServiceControl::AwaitWorkerEnd(std::optional<std::chrono::milliseconds> patience) {
  if (!patience) {
    while (!worker_ended_.load() && !stop_requested_.load()) {
      sem_wait(&worker_news_);
    }
    return worker_ended_.load();
  }
  const timespec deadline = MonotonicTimeAfter(*patience);
  while (!worker_ended_.load()) {
    if (sem_clockwait(&worker_news_, CLOCK_MONOTONIC, &deadline) != 0 && errno == ETIMEDOUT) {
      break;
    }
  }
  return worker_ended_.load();
}

void QelBaseServiceControl::ReleaseConsoleOfStuckWorker() {
  ReleaseConsole();
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
    if (std::exchange(service->active, false) && !Guarded(*service, "stop", [&] { return service->stop(context_); })) {
      ++failed;
    }
  }
  if (failed != 0) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize all components properly");
  }
  state_.exchange(kServiceIdle);
}

}  // namespace qel
