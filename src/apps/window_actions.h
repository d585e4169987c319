// What the host can do to windows. `window` is a top-level window as it was reported, or any window that the host
// names; it may be gone. Worker thread only.
#pragma once

#include "apps/running_app_registry.h"
#include "apps/session.h"

namespace qel {

// Focuses and raises the client window in the top-level window, and asks the window manager to make it the active one.
void ActivateWindow(const Session& session, Window window);

// Asks the window manager to turn the client window in the top-level window into an icon.
void MinimizeWindow(const Session& session, Window window);

// Asks the application to close each of its windows. Queued only: the next read of events sends it.
void CloseWindows(const Session& session, const WindowPairSet& windows);

}  // namespace qel
