// Which desktop environment the user runs.
#pragma once

#include <cstdint>

using Display = struct _XDisplay;  // as <X11/Xlib.h> declares it, whose macros are kept out of this header's users

namespace qel {

// There is no value for an unknown desktop: what no test recognises counts as Unity.
enum class DesktopKind : std::int32_t { kUnity = 0, kGnome = 1, kKde = 2, kXfce = 3, kLxde = 4 };

// Decides from the environment, the root window's properties and, last, the system bus. The display is that of the
// Tools Service, and the thread its worker. A bus that does not answer within two seconds counts as absent, from then
// on.
DesktopKind DetectDesktopKind(Display* display);

// True when the root window of the default screen has a property of this name and of type CARDINAL with an item in it.
bool RootWindowHasCardinalProperty(Display* display, const char* property_name);

}  // namespace qel
