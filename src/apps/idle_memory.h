// Giving back memory that the agent's start and the applications menu needed and that an idle agent does not.
#pragma once

namespace qel {

// Returns free heap memory, and the pages of the program and its libraries, to the system. Pages come from their files,
// mostly in memory still, when they are used again: some are at once. Any thread may call it at any time.
void ReleaseIdleMemory();

}  // namespace qel
