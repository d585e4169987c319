// Which desktop entry describes the application that a window belongs to.
//
// Worker thread only.
#pragma once

#include <X11/Xlib.h>

#include <optional>

#include "appmenu/desktop_entries.h"
#include "apps/session.h"

namespace qel {

// A desktop id and its entry. It stays valid as long as the registry.
using FiledDesktopEntry = DesktopEntryRegistry::Entries::value_type;

struct DesktopEntryMatch {
  const FiledDesktopEntry* entry = nullptr;  // null when nothing matches
  std::optional<Window> leader;              // the window's leader, None when it has none; not set when nobody asked
};

// Tries the window's WM_CLASS, then the BAMF matcher, then the same for the window's leader. A window without WM_CLASS
// goes to its leader at once. The result is logged. May take seconds when the matcher does not answer.
DesktopEntryMatch MatchDesktopEntry(const Session& session, DesktopEntryRegistry& registry, Window window);

}  // namespace qel
