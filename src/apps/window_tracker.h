// Decides which windows belong to shared applications, keeps the registry in step with the X server and tells the host.
//
// Only on the worker thread. RegistryLock is never held during an X call, because a lost connection ends the thread
// inside of one.
#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <unordered_set>

#include "appmenu/desktop_entries.h"
#include "apps/launched_processes.h"
#include "apps/registry.h"
#include "apps/session.h"
#include "apps/window_tree.h"
#include "icons/icon_lookup.h"
#include "tools_gate/guest_commands.h"

namespace qel {

class WindowTracker {
 public:
  // Everything handed in stays the caller's and has to outlive the tracker.
  WindowTracker(const Session& session, const GuestCommands& guest_commands, RunningAppRegistry& registry,
                LaunchedProcessTable& launched, DesktopEntryRegistry& entries, const IconFinder& icons)
      : session_(session),
        guest_commands_(guest_commands),
        registry_(registry),
        launched_(launched),
        entries_(entries),
        icons_(icons) {}

  // Registers and reports every window there is that qualifies and is not registered yet.
  void EnumerateWindows();

  // CreateNotify, MapNotify, ReparentNotify, DestroyNotify and PropertyNotify; others are ignored.
  void HandleWindowEvent(const XEvent& event);

  // Registers and reports the window if it qualifies. True when it is registered, was before, or belongs to an ignored
  // process other than the window manager: then nothing below it is to be looked at.
  bool TryRegisterWindow(Window window);

 private:
  // The same for a window that the window manager lists, in the top-level window `toplevel` if that is known already.
  bool RegisterListedWindow(Window window, WindowTree& tree, Window toplevel);

  // Registers the first listed window found in a top-level window, and watches those around it.
  void ScanWindow(Window toplevel, const std::unordered_set<Window>& listed);

  // False when the registry has the pair already.
  bool InsertPair(std::int32_t pid, WindowPair pair);

  void ReportWindow(std::int32_t pid, WindowPair pair) const;
  // TryRegisterWindow() for a window that an event names.
  void LookAt(Window window);

  void RemoveWindow(Window destroyed);
  void UpdateTitle(Window window) const;
  void UpdateIcon(Window window);

  // The process that the client window is registered for, 0 when it is not.
  std::int32_t FindOwner(Window client);

  // Has the server report what happens in and to the window from now on.
  void Watch(Window window) const;

  const Session& session_;
  const GuestCommands& guest_commands_;
  RunningAppRegistry& registry_;
  LaunchedProcessTable& launched_;
  DesktopEntryRegistry& entries_;
  const IconFinder& icons_;
};

}  // namespace qel
