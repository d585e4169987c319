// Giving back memory that the agent's start and the applications menu needed and that an idle agent does not.
#pragma once

namespace qel {

// Returns free heap memory to the system, and drops the pages of files that are mapped to be read: code and constants
// of the program and its libraries. Those that are used again come from their files, which are mostly in memory still.
//
// Pages that are not as their file has them, by relocation or by a debugger, are kept. No other thread may map or unmap
// files meanwhile.
void ReleaseIdleMemory();

}  // namespace qel
