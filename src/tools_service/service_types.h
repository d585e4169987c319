// What a client service and the Tools Service framework hand each other.
#pragma once

#include <cstdint>
#include <functional>

#include "base/file_descriptor.h"

namespace qel {

inline constexpr std::int32_t kConnectionNone = 0;
inline constexpr std::int32_t kConnectionX11 = 1;
inline constexpr std::int32_t kConnectionWayland = 2;

// The display connection that a service's callbacks work on. Owned by the control object.
struct ServiceContext {
  std::int32_t connection_type = kConnectionNone;
  void* display = nullptr;  // a Display (X11) or a wl_display (Wayland)
  // Of "CorvessanControl"; -1 when the server lacks it, 0 when not connected.
  std::int32_t control_extension_opcode = 0;
  // More events wait at the display than were read. An answer of the display would come behind all of them, so a
  // service asks it nothing now.
  bool behind = false;
};

// A client service: filled and owned by it, and registered once. All callbacks run on the framework's worker thread,
// one at a time. The framework sets the last two members.
struct ServiceDescriptor {
  const char* name = "";
  std::function<bool(ServiceContext&)> init;  // when the console is obtained, and again at every resume
  std::function<void(ServiceContext&)> poll;  // once per poll period, or at once when the service's pipe was written
  std::function<bool(ServiceContext&)> stop;  // at suspend and at the end; may be called twice in a row
  // A display event: an XEvent (X11) or a WlOutputEvent (Wayland). May be empty. It comes as soon as it was read, on
  // X11 from inside whichever call reads it: the service may only take note of it here and must not use the display.
  std::function<void(ServiceContext&, void*)> event;
  // Does one piece of what the noted events ask for; returns whether there is more to do. May be empty. Called again
  // and again, with the next events read in between, but for one poll period at most. While `behind` is set, which
  // happens without the console, too, a service only does what makes the events fewer.
  std::function<bool(ServiceContext&)> work;
  // Set by an init that failed for a reason that can pass. It is called again every five seconds.
  bool may_succeed_later = false;

  bool active = false;  // what the last init returned; only active services are polled, given events and stopped
  double next_due = 0;  // when poll is due next, seconds since the epoch; 0: at once
};

// Wakes the worker for one service out of turn.
struct ServicePipe {
  FileDescriptor read_end;  // non-blocking
  FileDescriptor write_end;
  ServiceDescriptor* owner = nullptr;
};

}  // namespace qel
