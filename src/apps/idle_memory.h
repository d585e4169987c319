// Giving back memory that the agent's start and the applications menu needed and that an idle agent does not.
#pragma once

namespace qel {

// Returns free heap memory to the system, and drops the pages of code of the program and its libraries. Those that are
// used again come from their files, which are mostly in memory still.
//
// Code that is not as its file has it, by relocation or by a debugger, is kept. No other thread may unload a library
// meanwhile: something else could be mapped in its place.
void ReleaseIdleMemory();

}  // namespace qel
