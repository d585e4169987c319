// The types that the Tools Service framework and its client services share.
#pragma once

#include <cstdint>
#include <functional>

#include "base/file_descriptor.h"

namespace qel {

inline constexpr std::int32_t kConnectionNone = 0;
inline constexpr std::int32_t kConnectionX11 = 1;
inline constexpr std::int32_t kConnectionWayland = 2;

// The display connection that is passed to the callbacks of a service. The control object owns it.
struct ServiceContext {
  std::int32_t connection_type = kConnectionNone;
  void* display = nullptr;  // a Display (X11) or a wl_display (Wayland)
  // Major opcode of the X extension "CorvessanControl"; -1 when the server does not have it, 0 when not connected.
  std::int32_t control_extension_opcode = 0;
  // The display has more events than were read. A reply of the display would come after all of them, so services must
  // not send requests that need a reply.
  bool has_backlog = false;
};

// A client service. The service fills and owns it, and registers it once. All callbacks run on the framework's worker
// thread, one at a time. The framework sets `active` and `next_due`.
struct ServiceDescriptor {
  const char* name = "";
  std::function<bool(ServiceContext&)> init;  // each time when the console is obtained
  std::function<void(ServiceContext&)> poll;  // once per poll period, or at once when the service's pipe was written
  std::function<bool(ServiceContext&)> stop;  // at suspend and at the end; may be called twice in a row
  // Gets a display event: an XEvent (X11) or a WlOutputEvent (Wayland). May be empty. It is called as soon as the event
  // was read; on X11 from inside of the Xlib call that reads it. So the service must only record the event here and
  // must not use the display.
  std::function<void(ServiceContext&, void*)> event;
  // Does one step of the work for the recorded events and returns whether there is more to do. May be empty. It is
  // called repeatedly for at most one poll period, and new events are read in between. While `has_backlog` of the
  // context is set, which can also happen without the console, it must only do what reduces the number of events.
  std::function<bool(ServiceContext&)> work;
  // Set by init when it has failed for a temporary reason. Then init is called again every five seconds.
  bool may_succeed_later = false;

  bool active = false;  // the result of the last init; other callbacks are called only while it is true
  double next_due = 0;  // time of the next poll, in seconds since the epoch; 0: at once
};

// A pipe that wakes the worker, so that it polls one service before the end of the period.
struct ServicePipe {
  FileDescriptor read_end;  // non-blocking
  FileDescriptor write_end;
  ServiceDescriptor* owner = nullptr;
};

}  // namespace qel
