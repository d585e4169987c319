// Optional graphics interfaces that the service controls bring up: each is tried once until it is taken down again, and
// each may be missing. All of it is called on the main thread only.
#pragma once

namespace qel {

// RandR 1.2. Needs the X function table; opens and closes a display connection of its own.
void RandR12Init();
void RandR12Deinit();

}  // namespace qel
