// Many windows at once, and many that live for a moment only.
#pragma once

#include <chrono>
#include <vector>

#include "session/session.h"

namespace qel::test {

// Opens windows of several processes, half of them at once and the rest in bursts of ten right behind, and returns when
// the window manager lists and shows them all (some list hundreds in a moment and take seconds to map them); nothing
// when it does not.
std::vector<Window> OpenInBursts(Session& session, std::size_t count);

struct ShortLives {
  std::size_t count = 0;
  std::chrono::milliseconds longest{300};  // a window exists for a time between 0 and this
  std::chrono::milliseconds interval{10};  // from one window to the next
  std::size_t kept = 10;                   // one window of so many is not closed
};
// Opens windows of several processes and closes most of them; returns when the window manager lists what is left.
void OpenAndClose(Session& session, const ShortLives& lives);

// Opens windows, so many at a time, and closes them when the host has heard of all; false when it does not hear. The
// agent looks at them when all are listed. Without a window manager this takes far less time.
bool ReportAndTakeBack(Session& session, Agent& agent, const WindowTraits& traits, std::size_t count,
                       std::size_t at_once);

}  // namespace qel::test
