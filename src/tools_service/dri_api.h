// The optional DRI library libQelDRI.so.1, of which the program holds one object: the DRM device "/dev/dri/card0".
// Both functions belong to the main thread.
#pragma once

namespace qel {

// Opens the library and obtains the object, at the first call; later calls only tell whether there is one, until
// DriApiDeinit(). False, with a warning logged, when the library, its function or the object is missing.
bool DriApiInit();

// Gives the object back and closes the library.
void DriApiDeinit();

}  // namespace qel
