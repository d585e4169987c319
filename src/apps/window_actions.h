// What the host may have done to windows. Only on the worker thread.
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
