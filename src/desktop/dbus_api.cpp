#include "desktop/dbus_api.h"

#include "libraries/library.h"
#include "log/log.h"

namespace qel {

DBusFunctionTable dbus_api;

namespace {

constexpr const char* kLibraryNames[] = {"libdbus-1.so.2", "libdbus-1.so.3", nullptr};

void* library = nullptr;
const char* library_name = nullptr;

template <typename Function>
bool Resolve(Function& entry, const char* name) {
  const char* const error = FindFunction(library, name, entry);
  if (error == nullptr) {
    return true;
  }
  LogError(kModuleLoader, "Error: %p", reinterpret_cast<void*>(entry));
  LogError(kModuleLoader, "Error: Failed to load symbol '%s': %s", name, error);
  return false;
}

bool ResolveAll() {
#define QEL_DBUS_RESOLVE(name)          \
  if (!Resolve(dbus_api.name, #name)) { \
    return false;                       \
  }
  QEL_DBUS_FUNCTIONS(QEL_DBUS_RESOLVE)
#undef QEL_DBUS_RESOLVE
  return true;
}

}  // namespace

int DBusLibLoad() {
  library = OpenFirstLibrary(kLibraryNames, [](const char* name) { library_name = name; });
  if (library == nullptr) {
    LogError(kModuleLoader, "Error: Failed to load DBus lib");
    DBusLibUnload();
    return 1;
  }
  LogInfo(kModuleLoader, "Using lib '%s'", library_name);
  if (!ResolveAll()) {
    DBusLibUnload();
    return 1;
  }
  LogInfo(kModuleLoader, "DBus lib loaded");
  return 0;
}

void DBusLibUnload() {
  dbus_api = {};
  if (library != nullptr) {
    dlclose(library);
    library = nullptr;
    LogInfo(kModuleLoader, "DBus lib unloaded");
  }
}

void DBusLibKeepMapped() {
  if (void* const pinned = dlopen(library_name, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE)) {
    dlclose(pinned);
  }
}

}  // namespace qel
