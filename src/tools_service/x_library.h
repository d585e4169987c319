// The X client libraries, opened at run time: one process-wide table of the Xlib, Xext and Xrandr functions that the
// program calls. No file of the program calls an X function but through this table.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>

#include "base/owner.h"

namespace qel {

// One member per function, in the order of x_functions.def, each of the function's own type. Functions that only Xlib's
// internal headers declare are kept untyped; x_requests.cpp gives them their types.
struct XFunctionTable {
  using Untyped = void (*)();
#define QEL_X_FUNCTION(name) decltype(&::name) name;
#define QEL_X_INTERNAL(name) Untyped name;
#include "tools_service/x_functions.def"
};

// The table: all null until XLibLoad(), valid until XLibUnload(). Written on the main thread while no worker exists.
extern XFunctionTable x_api;

// Opens the library and resolves every function. 0 on success, also when it was loaded before; 1 when the library or
// one of its functions is missing, which is logged, with nothing left open.
int XLibLoad();
void XLibUnload();

// Frees what Xlib returned.
inline void XFreeData(void* data) {
  x_api.XFree(data);
}
using XFreeDeleter = ReleaseWith<XFreeData>;

// The screen's root window, without a call to the server.
inline Window XDefaultRoot(Display* display) {
  return DefaultRootWindow(display);
}

}  // namespace qel
