// RandR 1.2, the optional screen configuration extension of X. The X service control loads it. Only the main thread may
// call these functions.
#pragma once

namespace qel {

// Loads the library and asks the server for RandR 1.2; further calls before RandR12Deinit() do nothing. Needs the X
// function table, and an X I/O error handler that ends the calling thread. Opens a display connection of its own on
// another thread, and closes it again. A server that does not answer within two seconds counts as one without RandR.
void RandR12Init();
void RandR12Deinit();

}  // namespace qel
