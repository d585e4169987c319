// Many windows at once, and many that live for a moment only.
#pragma once

#include <vector>

#include "session/session.h"

namespace qel::test {

// Opens windows of several processes, half of them at once and the rest in bursts of ten right behind, and returns when
// the window manager lists and shows them all (some list hundreds in a moment and take seconds to map them); nothing
// when it does not.
std::vector<Window> OpenInBursts(Session& session, std::size_t count);

// Opens so many windows of several processes and closes nine in ten of them soon, some at once; returns when the window
// manager has dealt with them all.
void OpenAndClose(Session& session, std::size_t count);

// Opens windows, so many at a time, and closes them when the host has heard of all; false when it does not hear. The
// agent looks at them when all are listed. Without a window manager this takes far less time.
bool ReportAndTakeBack(Session& session, Agent& agent, const WindowTraits& traits, std::size_t count,
                       std::size_t at_once);

}  // namespace qel::test
