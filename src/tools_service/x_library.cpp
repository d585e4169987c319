#include "tools_service/x_library.h"

#include <dlfcn.h>

#include "base/respondent.h"
#include "log/log.h"

namespace qel {

XFunctionTable x_api{};

namespace {

constexpr int kFunctionCount = 59;
static_assert(sizeof(XFunctionTable) == kFunctionCount * sizeof(void*));

constexpr const char* kLibraryNames[] = {"libXrandr.so", "libXrandr.so.1", "libXrandr.so.1.0.0", "libXrandr.so.2"};

void* g_handle = nullptr;

// The Xlib and Xext functions are found through the library's own dependencies.
template <typename Function>
bool Resolve(const char* name, Function& slot) {
  dlerror();
  slot = reinterpret_cast<Function>(dlsym(g_handle, name));
  if (const char* error = dlerror()) {
    LogError(kModuleService, "Error: Could not load X function [%s]: %s", name, error);
    return false;
  }
  return true;
}

bool ResolveAll() {
#define QEL_X_FUNCTION(name) Resolve(#name, x_api.name)&&
#define QEL_X_INTERNAL(name) Resolve(#name, x_api.name)&&
  return
#include "tools_service/x_functions.def"
      true;
#undef QEL_X_FUNCTION
#undef QEL_X_INTERNAL
}

}  // namespace

int XLibLoad() {
  if (g_handle != nullptr) {
    return 0;
  }
  x_api = {};
  for (const char* name : kLibraryNames) {
    LogInfo(kModuleService, "Try %s X server's library...", name);
    g_handle = dlopen(name, RTLD_NOW | RTLD_GLOBAL);
    if (g_handle != nullptr) {
      break;
    }
  }
  if (g_handle == nullptr) {
    LogError(kModuleService, "Error: Could not load X server's library");
    return 1;
  }
  if (!ResolveAll()) {
    XLibUnload();
    return 1;
  }
  LogInfo(kModuleService, "X functions were loaded successfully");
  return 0;
}

void XLibUnload() {
  if (g_handle == nullptr) {
    return;
  }
  if (!IsAnyQuestionOpen()) {
    x_api = {};
    dlclose(g_handle);
  }
  g_handle = nullptr;
  LogInfo(kModuleService, "X functions were unloaded");
}

}  // namespace qel
