// Requests to the X server that have no function in the X function table, composed through Xlib's own request buffer.
// The display is locked around each; all but RoundTrip() and the questions of the control extension are only queued.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>

namespace qel::x_requests {

// Has the receiver called with each of the server's events the moment Xlib reads it, which may be inside any call that
// waits for the server. Xlib then does not queue the event: its queue, which never shrinks, would grow with every event
// that comes while the program is busy. The display is locked meanwhile, so the receiver must not use it, and must not
// throw. One receiver for the process.
using EventReceiver = void (*)(XEvent& event);
void ReceiveEventsAsRead(Display* display, EventReceiver receiver);

// SetInputFocus with revert-to PointerRoot and time CurrentTime.
void SetInputFocus(Display* display, Window window);

// ConfigureWindow with stack mode Above.
void RaiseWindow(Display* display, Window window);

// A GetInputFocus request whose reply is read and discarded: when it returns, the server has processed everything
// before it.
void RoundTrip(Display* display);

// Questions to the "CorvessanControl" extension with the given major opcode. Each returns whether the reply says yes;
// false also when there is no reply.
bool IsConsoleActive(Display* display, int major_opcode);
bool ClaimUserSession(Display* display, int major_opcode, std::uint32_t user_id);

}  // namespace qel::x_requests
