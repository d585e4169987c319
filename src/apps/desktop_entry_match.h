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
  std::optional<Window> leader;              // of the window itself (None: it has none), where the search asked for it
};

// Tries the window's WM_CLASS, then the BAMF matcher, then the same for the leader of the window's client. A window
// without WM_CLASS goes to its leader at once.
DesktopEntryMatch MatchDesktopEntry(const Session& session, DesktopEntryRegistry& registry, Window window);

}  // namespace qel
