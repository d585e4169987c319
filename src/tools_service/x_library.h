// The X client libraries, opened at run time: one process-wide table of the Xlib, Xext and Xrandr functions that the
// program calls. No file of the program calls an X function but through this table.
#pragma once

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/Xrandr.h>

#include <cstdint>

namespace qel {

// One member per function, in the order of x_functions.def, each of the function's own type. Functions that only Xlib's
// internal headers declare are kept untyped; x_requests.cpp gives them their types.
struct XFunctionTable {
  using Untyped = void (*)();
#define QEL_X_FUNCTION(name) decltype(&::name) name;
#define QEL_X_INTERNAL(name) Untyped name;
#include "tools_service/x_functions.def"
#undef QEL_X_FUNCTION
#undef QEL_X_INTERNAL
};

// The table: all null until XLibLoad(), valid until XLibUnload(). Written on the main thread while no worker exists.
extern XFunctionTable x_api;

// Opens the library and resolves every function. 0 on success, also when it was loaded before; 1 when the library or
// one of its functions is missing, which is logged, with nothing left open.
int XLibLoad();
void XLibUnload();

// Frees what Xlib returned.
struct XFreeDeleter {
  void operator()(void* data) const { x_api.XFree(data); }
};

// The screen's root window, without a call to the server.
inline Window XDefaultRoot(Display* display) {
  return DefaultRootWindow(display);
}

// Requests that have no function in the table, composed through Xlib's own request buffer. All of them are queued,
// except XRoundTrip().
namespace x_requests {

// SetInputFocus with revert-to PointerRoot and time CurrentTime.
void SetInputFocus(Display* display, Window window);

// ConfigureWindow with stack mode Above.
void RaiseWindow(Display* display, Window window);

// A GetInputFocus request whose reply is read and discarded: when it returns, the server has processed everything
// before it.
void RoundTrip(Display* display);

// Requests of the "CorvessanControl" extension with the given major opcode. Each returns whether the reply says yes;
// false also when there is no reply.
bool IsConsoleActive(Display* display, int major_opcode);
bool ClaimUserSession(Display* display, int major_opcode, std::uint32_t user_id);

}  // namespace x_requests

}  // namespace qel
