#include "tools_service/dri_api.h"

#include "libraries/library.h"
#include "log/log.h"
#include "tools_service/drm_object.h"

// Outside of the namespace, as the DRI library expects. The linker options export it from the program.
void QelVTG::DecRef() {
  if (--reference_count_ <= 0) {
    delete this;
  }
}

namespace qel {
namespace {

constexpr const char* kLibrary = "libQelDRI.so.1";
constexpr const char* kDevice = "/dev/dri/card0";

bool g_tried = false;
void* g_library = nullptr;
QelVTG* g_drm = nullptr;

}  // namespace

bool DriApiInit() {
  if (g_tried) {
    return g_drm != nullptr;
  }
  g_tried = true;
  g_library = OpenLibrary(kLibrary);
  QelVTG* (*create_named)(const char* device) = nullptr;
  if (g_library != nullptr) {
    FindFunction(g_library, "QelDRMCreateNamed", create_named);
  }
  if (create_named != nullptr) {
    g_drm = create_named(kDevice);
  }
  if (g_drm == nullptr) {
    LogWarning(kModuleService, "Warning: DRI API unsupported");
    return false;
  }
  LogInfo(kModuleService, "DRI API initialized");
  return true;
}

void DriApiDeinit() {
  g_tried = false;
  if (g_drm != nullptr) {
    g_drm->DecRef();
    g_drm = nullptr;
    LogInfo(kModuleService, "DRI API deinitialized");
  }
  if (g_library != nullptr) {
    dlclose(g_library);
    g_library = nullptr;
  }
}

}  // namespace qel
