// Opens many windows at once, or many windows that close soon.
#pragma once

#include <chrono>
#include <vector>

#include "session/session.h"

namespace qel::test {

// Opens windows of several processes: half of them at once, then the rest in bursts of ten. Waits until the window
// manager lists and shows all; some window managers need seconds to map hundreds of windows. Returns an empty vector at
// the timeout.
std::vector<Window> OpenInBursts(Session& session, std::size_t count);

struct ShortLives {
  std::size_t count = 0;
  std::chrono::milliseconds longest{300};  // windows exist for a random time up to this
  std::chrono::milliseconds interval{10};  // the time between two windows
  std::size_t kept = 10;                   // one of this many windows is not closed
};
// Opens windows of several processes and closes most of them. Waits until the window manager lists only the rest.
void OpenAndClose(Session& session, const ShortLives& lives);

// Opens `count` windows, `at_once` at a time, and closes them when the agent has reported them. Returns false if a
// report does not come. The agent is stopped while the windows are opened. This is much faster without a window
// manager.
bool ReportAndTakeBack(Session& session, Agent& agent, const WindowTraits& traits, std::size_t count,
                       std::size_t at_once);

}  // namespace qel::test
