// X requests for which the X function table has no function. They are written directly into Xlib's request buffer, with
// the display locked. RoundTrip() and the requests of the control extension wait for a reply; the others are only
// queued.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>

namespace qel::x_requests {

// Makes Xlib call the receiver with each core event when it reads the event, which can happen inside of any call that
// waits for the server. Xlib then does not queue the event; its queue grows with every event that arrives while the
// program is busy, and never shrinks. The display is locked during the call, so the receiver must not use it. The
// receiver must not throw. There is one receiver per process.
using EventReceiver = void (*)(XEvent& event);
void ReceiveEventsAsRead(Display* display, EventReceiver receiver);

// SetInputFocus with revert-to PointerRoot and time CurrentTime.
void SetInputFocus(Display* display, Window window);

// ConfigureWindow with stack mode Above.
void RaiseWindow(Display* display, Window window);

// Sends a GetInputFocus request and discards the reply. When it returns, the server has processed all earlier requests.
void RoundTrip(Display* display);

// Requests of the extension "CorvessanControl" with the given major opcode. Return true when the reply is positive, and
// false when it is negative or missing.
bool IsConsoleActive(Display* display, int major_opcode);
bool ClaimUserSession(Display* display, int major_opcode, std::uint32_t user_id);

}  // namespace qel::x_requests
