// libdbus-1, opened at run time for one probe of the system bus (desktop_kind.cpp). Only the thread of that probe uses
// it.
#pragma once

#include <dbus/dbus.h>

namespace qel {

// The functions in table order.
#define QEL_DBUS_FUNCTIONS(X)          \
  X(dbus_error_init)                   \
  X(dbus_bus_get)                      \
  X(dbus_error_free)                   \
  X(dbus_message_new_method_call)      \
  X(dbus_message_iter_init_append)     \
  X(dbus_message_iter_append_basic)    \
  X(dbus_message_iter_open_container)  \
  X(dbus_message_iter_close_container) \
  X(dbus_message_set_no_reply)         \
  X(dbus_message_unref)                \
  X(dbus_connection_send)              \
  X(dbus_connection_flush)             \
  X(dbus_message_append_args)

struct DBusFunctionTable {
#define QEL_DBUS_FUNCTION(name) decltype(&::name) name;  // NOLINT(bugprone-macro-parentheses): a name, no expression
  QEL_DBUS_FUNCTIONS(QEL_DBUS_FUNCTION)
#undef QEL_DBUS_FUNCTION
};

// All null while the library is not loaded.
extern DBusFunctionTable dbus_api;

// Opens the library and resolves every function. Returns 0 on success. Returns 1 when the library or a function is
// missing; then an error is logged and the library is closed again.
int DBusLibLoad();
void DBusLibUnload();

// Keeps the code and data of the loaded library in memory after DBusLibUnload(). Needed when the library holds state
// that must still exist after the next DBusLibLoad().
void DBusLibKeepMapped();

}  // namespace qel
