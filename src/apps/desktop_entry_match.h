// Finds the desktop entry of the application to which a window belongs.
//
// Worker thread only.
#pragma once

#include <X11/Xlib.h>

#include <optional>

#include "appmenu/desktop_entries.h"
#include "apps/session.h"

namespace qel {

// A desktop id and its entry; valid as long as the registry.
using FiledDesktopEntry = DesktopEntryRegistry::Entries::value_type;

struct DesktopEntryMatch {
  const FiledDesktopEntry* entry = nullptr;  // null when nothing matches
  std::optional<Window> leader;              // the window's leader, or None; not set when it was not read
};

// Tries the window's WM_CLASS, then the BAMF matcher, then both for the window's leader (WM_CLIENT_LEADER) and so on.
// For a window without WM_CLASS the matcher is not asked. The result is logged. May take two seconds when the matcher
// does not answer.
DesktopEntryMatch MatchDesktopEntry(const Session& session, DesktopEntryRegistry& registry, Window window);

}  // namespace qel
