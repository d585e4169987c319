#include "tools_service/x_library.h"

#include "libraries/library.h"
#include "log/log.h"

namespace qel {

XFunctionTable x_api{};

namespace {

constexpr int kFunctionCount = 59;
static_assert(sizeof(XFunctionTable) == kFunctionCount * sizeof(void*));

constexpr const char* kLibraryNames[] = {"libXrandr.so", "libXrandr.so.1", "libXrandr.so.1.0.0", "libXrandr.so.2",
                                         nullptr};

void* g_library = nullptr;

// g_library is libXrandr; dlsym() also finds the functions of Xlib and Xext, because libXrandr depends on them.
template <typename Function>
bool Resolve(const char* name, Function& entry) {
  const char* const error = FindFunction(g_library, name, entry);
  if (error != nullptr) {
    LogError(kModuleService, "Error: Could not load X function [%s]: %s", name, error);
  }
  return error == nullptr;
}

bool ResolveAll() {
  bool resolved = true;
#define QEL_X_FUNCTION(name) resolved = resolved && Resolve(#name, x_api.name);
#include "tools_service/x_functions.def"
  return resolved;
}

}  // namespace

int XLibLoad() {
  if (g_library != nullptr) {
    return 0;
  }
  x_api = {};
  g_library = OpenFirstLibrary(kLibraryNames,
                               [](const char* name) { LogInfo(kModuleService, "Try %s X server's library...", name); });
  if (g_library == nullptr) {
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
  if (g_library == nullptr) {
    return;
  }
  if (CloseLibrary(g_library)) {
    x_api = {};
  }
  LogInfo(kModuleService, "X functions were unloaded");
}

}  // namespace qel
