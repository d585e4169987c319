// RandR 1.2, which the X service control brings up and which may be missing. Both functions belong to the main thread.
#pragma once

namespace qel {

// Tries once, until RandR12Deinit(). Needs the X function table, and an X I/O error handler that ends the calling
// thread; opens and closes a display connection of its own, on a thread of its own. A server that does not answer
// within two seconds has no RandR.
void RandR12Init();
void RandR12Deinit();

}  // namespace qel
