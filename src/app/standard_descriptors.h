// The descriptors 0, 1 and 2.
#pragma once

namespace qel {

// Opens /dev/null for those that are closed. A process may be started without them; the next files it opens would take
// their place, and what a library prints would reach the log or the gate. To be called before anything is opened.
void OpenMissingStandardDescriptors();

}  // namespace qel
