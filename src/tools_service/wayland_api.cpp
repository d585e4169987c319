#include "tools_service/wayland_api.h"

#include "log/log.h"

namespace qel {
namespace {

bool g_tried = false;
bool g_available = false;

}  // namespace

bool WaylandApiInit() {
  if (g_tried) {
    return g_available;
  }
  g_tried = true;
  if (QelWaylandBindingInit() == 0) {
    QelWaylandBindingDeinit();
    LogWarning(kModuleService, "Warning: Wayland API unsupported");
    return false;
  }
  g_available = true;
  LogInfo(kModuleService, "Wayland API initialized");
  return true;
}

void WaylandApiDeinit() {
  g_tried = false;
  if (!g_available) {
    return;
  }
  g_available = false;
  QelWaylandBindingDeinit();
  LogInfo(kModuleService, "Wayland API deinitialized");
}

const QelWlApi& WaylandApi() {
  return g_QelWlApi;
}

}  // namespace qel
