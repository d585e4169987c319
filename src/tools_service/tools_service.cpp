#include "tools_service/tools_service.h"

#include <unistd.h>

#include <atomic>

#include "log/log.h"
#include "tools_service/wl_service_control.h"
#include "tools_service/x_service_control.h"

namespace qel {
namespace {

QelXServiceControl g_x_control;
QelWlServiceControl g_wl_control;

// Atomic because a signal handler calls ToolsServiceStop(), on any thread, while the main thread may clear this. The
// object itself outlives every thread.
std::atomic<QelBaseServiceControl*> g_current{nullptr};
static_assert(std::atomic<QelBaseServiceControl*>::is_always_lock_free);

// The control of a connection type; null for a type that has none.
QelBaseServiceControl* ControlOfType(std::int32_t type) {
  switch (type) {
    case kConnectionX11:
      return &g_x_control;
    case kConnectionWayland:
      return &g_wl_control;
    default:
      return nullptr;
  }
}

}  // namespace

bool ToolsServiceInit(key_t key, std::int32_t type, bool own_user_session) {
  QelBaseServiceControl* control = ControlOfType(type);
  if (control == nullptr) {
    LogError(kModuleService, "Error: Tools Service: can't initialize service (type=%d)", type);
    return false;
  }
  if (g_current.load() != nullptr) {
    LogError(kModuleService, "Error: Tools Service: can't initialize service (already initialized)");
    return false;
  }
  g_current.store(control);
  if (!control->Init(key, own_user_session)) {
    g_current.store(nullptr);
    LogWarning(kModuleService, "Warning: Tools Service: can't initialize service (type=%d)", type);
    return false;
  }
  return true;
}

bool ToolsServiceDeinit() {
  QelBaseServiceControl* control = g_current.load();
  if (control == nullptr) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize service (non initialized)");
    return false;
  }
  const bool done = control->Deinit();
  if (!done) {
    LogError(kModuleService, "Error: Tools Service: can't deinitialize service");
  }
  g_current.store(nullptr);
  return done;
}

bool ToolsServiceAddService(ServiceDescriptor* descriptor) {
  QelBaseServiceControl* control = g_current.load();
  return control != nullptr && control->AddService(descriptor);
}

void ToolsServiceRun(std::uint32_t period_ms) {
  if (QelBaseServiceControl* control = g_current.load()) {
    control->Run(period_ms);
  }
}

bool ToolsServiceLeaveStuckWorker() {
  QelBaseServiceControl* control = g_current.load();
  if (control == nullptr || !control->IsWorkerStuck()) {
    return false;
  }
  control->ReleaseConsole();
  return true;
}

void ToolsServiceStop() {
  if (QelBaseServiceControl* control = g_current.load()) {
    control->Stop();
  }
}

bool ToolsServiceIsRunning() {
  const QelBaseServiceControl* control = g_current.load();
  return control != nullptr && control->State() == kServiceRunning;
}

std::uint32_t ToolsServiceGetPollPeriod() {
  const QelBaseServiceControl* control = g_current.load();
  return control != nullptr ? control->PollPeriod() : 0;
}

ServicePipe* ToolsServiceAddPipe(ServiceDescriptor* descriptor) {
  QelBaseServiceControl* control = g_current.load();
  return control != nullptr ? control->AddPipe(descriptor) : nullptr;
}

bool ToolsServiceWakeUp(const ServicePipe* pipe) {
  if (g_current.load() == nullptr || pipe == nullptr) {
    return false;
  }
  constexpr std::uint32_t kWakeUp = 1;
  const int end = pipe->write_end.Get();
  if (write(end, &kWakeUp, sizeof kWakeUp) != static_cast<ssize_t>(sizeof kWakeUp)) {
    LogError(kModuleService, "Error: Tools Service: write to pipe %d service %s", end, pipe->owner->name);
    return false;
  }
  return true;
}

}  // namespace qel
