// Brings the Wayland binding library up and down. Both functions belong to the main thread.
#pragma once

#include "tools_service/wayland_binding.h"

namespace qel {

// Initialises the binding at the first call and remembers the outcome: later calls return it without trying again,
// until WaylandApiDeinit().
bool WaylandApiInit();
void WaylandApiDeinit();

// The binding's table; to be used only between a successful WaylandApiInit() and WaylandApiDeinit().
const QelWlApi& WaylandApi();

}  // namespace qel
