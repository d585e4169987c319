// The standard descriptors 0, 1 and 2.
#pragma once

namespace qel {

// Opens /dev/null as each standard descriptor that is closed. Otherwise the next file that the process opens would get
// that number, and output of a library could go into the log or to the gate. Must be called before any file is opened.
void OpenMissingStandardDescriptors();

}  // namespace qel
