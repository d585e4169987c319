// Which desktop environment the user runs.
#pragma once

#include <cstdint>

using Display = struct _XDisplay;  // as in <X11/Xlib.h>, which is not included here because of its macros

namespace qel {

// There is no value for an unknown desktop: it counts as Unity.
enum class DesktopKind : std::int32_t { kUnity = 0, kGnome = 1, kKde = 2, kXfce = 3, kLxde = 4 };

// Detects the desktop from the environment variables, else from the properties of the root window, else from the system
// bus. Called on the worker thread of the Tools Service, with its display. A bus that does not answer within two
// seconds counts as absent, also in later calls.
DesktopKind DetectDesktopKind(Display* display);

// True when the root window of the default screen has a property of this name with type CARDINAL and at least one item.
bool RootWindowHasCardinalProperty(Display* display, const char* property_name);

}  // namespace qel
