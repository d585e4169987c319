// What windows say about themselves: one reader per property, one round trip to the X server each.
//
// Every program can give its windows properties of any type, format and length, and a window may vanish between two
// calls. So a property that is missing or malformed, or of a window that is gone, reads as the value named here, and
// nothing is logged. Worker thread only.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "apps/running_app_registry.h"
#include "apps/session.h"
#include "tools_gate/icon_image.h"

namespace qel {

// Process id, or -1. Any other value that the property holds is returned as it is.
std::int32_t GetWindowPid(const Session& session, Window window);

// The window that leads the application's windows, or 0.
Window GetClientLeader(const Session& session, Window window);

// The window manager has marked the window as a client that it manages.
bool HasWmState(const Session& session, Window window);

// The title, UTF-8, or empty. One of more than 4 KiB is cut there, perhaps in the middle of a character: no message and
// no line of the log has room for more.
std::string GetWindowTitle(const Session& session, Window window);

// The window is minimised.
bool IsWindowHidden(const Session& session, Window window);

// The first type that the window's own property names.
std::optional<Atom> ReadWindowType(const Session& session, Window window);

// The two texts of WM_CLASS.
struct WmClass {
  std::string instance;
  std::string class_name;  // empty unless the property holds it with its terminator
};

// Nothing when the window has no such property; empty texts when it is malformed. Texts are cut at 8 KiB in all.
std::optional<WmClass> ReadWmClass(const Session& session, Window window);

// The windows that the window manager lists on the root window as those of applications.
std::vector<WindowId> ReadClientList(const Session& session);

// Icons that the window brings along: the one of the largest area, the first of equals, and the last one of 16 x 16
// pixels. What is not there is left as it is.
void ReadWindowIcons(const Session& session, Window window, IconImage& large, IconImage& small);

}  // namespace qel
