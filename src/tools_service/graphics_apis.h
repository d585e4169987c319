// Optional graphics interfaces that the service controls bring up: each is tried once until it is taken down again, and
// each may be missing. All of it is called on the main thread only.
#pragma once

namespace qel {

// RandR 1.2. Needs the X function table, and an X I/O error handler that ends the calling thread; opens and closes a
// display connection of its own, on a thread of its own. A server that does not answer within two seconds has no RandR.
void RandR12Init();
void RandR12Deinit();

}  // namespace qel
