// libQelWl.so.1: a table with functions of the Wayland client library, which is opened when the table is filled.
//
// So a program that is linked with this library also starts on a system without Wayland; then QelWaylandBindingInit()
// fails. The table is an array of pointers. The meaning of each position is fixed for all programs that use the table.

#include <dlfcn.h>

#include <cstddef>

#define QEL_EXPORT __attribute__((visibility("default")))

namespace {

constexpr const char* kClientLibrary = "libwayland-client.so.0";
constexpr std::size_t kTableSize = 37;

struct Entry {
  std::size_t index;
  const char* symbol;
};

// All other positions stay null.
constexpr Entry kEntries[] = {
    {0, "wl_display_connect"},
    {2, "wl_display_disconnect"},
    {4, "wl_display_create_queue"},
    {5, "wl_display_flush"},
    {7, "wl_display_roundtrip_queue"},
    {8, "wl_proxy_add_listener"},
    {10, "wl_proxy_marshal_constructor"},
    {11, "wl_proxy_create_wrapper"},
    {12, "wl_proxy_wrapper_destroy"},
    {13, "wl_proxy_destroy"},
    {14, "wl_proxy_set_queue"},
    {20, "wl_proxy_set_user_data"},
    {21, "wl_event_queue_destroy"},
    {22, "wl_proxy_marshal_constructor_versioned"},
    {34, "wl_registry_interface"},
    {36, "wl_output_interface"},
};

void* g_client_library = nullptr;

}  // namespace

extern "C" {

QEL_EXPORT void* g_QelWlApi[kTableSize] = {};

QEL_EXPORT void QelWaylandBindingDeinit() {
  for (void*& entry : g_QelWlApi) {
    entry = nullptr;
  }
  if (g_client_library != nullptr) {
    dlclose(g_client_library);
    g_client_library = nullptr;
  }
}

// Returns nonzero when all entries were found. A second call before QelWaylandBindingDeinit() changes nothing.
QEL_EXPORT int QelWaylandBindingInit() {
  if (g_client_library != nullptr) {
    return 1;
  }
  g_client_library = dlopen(kClientLibrary, RTLD_NOW | RTLD_LOCAL);
  if (g_client_library == nullptr) {
    return 0;
  }
  for (const Entry& entry : kEntries) {
    g_QelWlApi[entry.index] = dlsym(g_client_library, entry.symbol);
    if (g_QelWlApi[entry.index] == nullptr) {
      QelWaylandBindingDeinit();
      return 0;
    }
  }
  return 1;
}

}  // extern "C"
