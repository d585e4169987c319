// The optional DRI library libQelDRI.so.1. The program keeps one object of it: the DRM device "/dev/dri/card0". Only
// the main thread may call these functions.
#pragma once

namespace qel {

// The first call opens the library and creates the object. Later calls, until DriApiDeinit(), only return whether there
// is an object. Returns false, with a warning logged at the first call, when the library, its function or the object is
// missing.
bool DriApiInit();

// Releases the object and closes the library.
void DriApiDeinit();

}  // namespace qel
