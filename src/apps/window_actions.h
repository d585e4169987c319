// Actions of the host on windows, with requests of EWMH and ICCCM. `window` is a top-level window that was reported, or
// any window id that the host sends; the window may not exist any more. Errors are ignored. Worker thread only.
#pragma once

#include "apps/running_app_registry.h"
#include "apps/session.h"

namespace qel {

// Gives the focus to the client window in `window`, raises it, and asks the window manager to activate it
// (_NET_ACTIVE_WINDOW).
void ActivateWindow(const Session& session, Window window);

// Asks the window manager to minimise the client window in `window` (WM_CHANGE_STATE).
void MinimizeWindow(const Session& session, Window window);

// Asks the application to close these windows (WM_DELETE_WINDOW). The requests are only queued; they are sent when the
// events are read next.
void CloseWindows(const Session& session, const WindowPairSet& windows);

}  // namespace qel
