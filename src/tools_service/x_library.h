// The X client libraries, opened at run time: one process-wide table of functions of Xlib, Xext and Xrandr. The program
// calls X functions only through this table.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>

#include "base/owner.h"

namespace qel {

// One member per function, in the order of x_functions.def and with the function's type. Functions that only Xlib's
// internal headers declare are untyped here; x_requests.cpp casts them to their types.
struct XFunctionTable {
  using Untyped = void (*)();
#define QEL_X_FUNCTION(name) decltype(&::name) name;
#define QEL_X_INTERNAL(name) Untyped name;
#include "tools_service/x_functions.def"
};

// The table. All entries are null before XLibLoad() and after XLibUnload(), unless CloseLibrary() had to leave the
// library open. Written on the main thread while no worker exists.
extern XFunctionTable x_api;

// Opens the library and resolves every function. Returns 0 on success, also when it was loaded before. Returns 1 when
// the library or a function is missing; then an error is logged and the library is closed again.
int XLibLoad();
void XLibUnload();

// Frees data that Xlib has returned.
inline void XFreeData(void* data) {
  x_api.XFree(data);
}
using XFreeDeleter = ReleaseWith<XFreeData>;

// The screen's root window, without a call to the server.
inline Window XDefaultRoot(Display* display) {
  return DefaultRootWindow(display);
}

}  // namespace qel
