// Initialises and releases the Wayland binding library. WaylandApiInit() and WaylandApiDeinit() may be called only on
// the main thread.
#pragma once

#include "tools_service/wayland_binding.h"

namespace qel {

// The first call initialises the binding and returns whether that worked; a failure is logged as a warning. Later
// calls, until WaylandApiDeinit(), return the same result without a new try.
bool WaylandApiInit();
void WaylandApiDeinit();

// The function table of the binding. May be used only between a successful WaylandApiInit() and WaylandApiDeinit().
const QelWlApi& WaylandApi();

}  // namespace qel
