// Readers for window properties (EWMH and ICCCM): one function per property, with one round trip to the X server each.
//
// A program can set properties of any type, format and length, and a window may be destroyed between two calls. So when
// a property is missing or malformed, or the window does not exist, each function returns the value that is described
// here; nothing is logged. Worker thread only.
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

// The process id (_NET_WM_PID), or -1. The value is not checked.
std::int32_t GetWindowPid(const Session& session, Window window);

// The leader of the window's group (WM_CLIENT_LEADER), or 0.
Window GetClientLeader(const Session& session, Window window);

// Whether the window has the property WM_STATE, which the window manager sets on the windows that it manages.
bool HasWmState(const Session& session, Window window);

// The title (_NET_WM_NAME) in UTF-8, or an empty text. It is cut at 4 KiB, perhaps in the middle of a character.
std::string GetWindowTitle(const Session& session, Window window);

// Whether the window is minimised (_NET_WM_STATE_HIDDEN).
bool IsWindowHidden(const Session& session, Window window);

// The first type in _NET_WM_WINDOW_TYPE; nullopt when there is none.
std::optional<Atom> ReadWindowType(const Session& session, Window window);

// The two texts of WM_CLASS.
struct WmClass {
  std::string instance;
  std::string class_name;  // empty when it has no terminating NUL
};

// Returns nullopt when the window has no WM_CLASS, and empty texts when the property is malformed. Reads at most 8 KiB.
std::optional<WmClass> ReadWmClass(const Session& session, Window window);

// The windows in _NET_CLIENT_LIST of the root window: the application windows that the window manager manages.
std::vector<WindowId> ReadClientList(const Session& session);

// Reads _NET_WM_ICON. `large` gets the icon with the largest area, the first of several; `small` the last icon of 16 x
// 16 pixels. They are unchanged when there is no such icon.
void ReadWindowIcons(const Session& session, Window window, IconImage& large, IconImage& small);

}  // namespace qel
