// Decides which windows belong to shared applications, keeps the registry in step with the X server and tells the host.
//
// Events are only noted, by window. Work() deals with them, one step at a time: a step reads what a window says about
// itself, or tells the host one thing. Events are handed in during the steps too, whenever the server is asked
// something: what a step was about to tell may be out of date then, and is not told.
//
// A window whose properties change faster than anybody could follow is not heard for a while, and asked once a period
// instead: each answer of the server comes behind all the events from before, which would pile up meanwhile.
//
// Nothing is missed, because the server is asked to report changes before it is asked for the present state: changes of
// the root window before the windows are listed, changes of a window and of those around it before its properties are
// read. A window is looked at when the window manager lists it. One that fails a test is looked at again when what the
// test depends on has changed.
//
// Worker thread only. RegistryLock is never held during an X call: a lost connection ends the thread inside of one.
#pragma once

#include <X11/Xlib.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "appmenu/desktop_entries.h"
#include "apps/launched_processes.h"
#include "apps/running_app_registry.h"
#include "apps/session.h"
#include "apps/window_candidates.h"
#include "apps/window_tasks.h"
#include "apps/window_tree.h"
#include "icons/icon_lookup.h"
#include "tools_gate/guest_commands.h"
#include "tools_gate/icon_image.h"

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

  // As EnumerateWindows(), and windows that are gone are noticed too. To be called after a time without events.
  void Resume();

  // From now on Work() registers and reports every window that qualifies and is not registered yet, and then tells the
  // host that the enumeration is finished. An enumeration that is under way is finished first.
  void EnumerateWindows();

  // Notes CreateNotify, MapNotify, ReparentNotify, ConfigureNotify, DestroyNotify and PropertyNotify; others are
  // ignored. Makes no X call and tells the host nothing.
  void HandleWindowEvent(const XEvent& event);

  // Does one step of what is to be done. False when there is nothing to do. While events wait to be read (`behind`) the
  // only step is to ask the server for fewer of them.
  bool Work(bool behind = false);

  // To be called once per poll period. Noisy windows are heard again.
  void BeginPeriod();

  // Registers and reports the window if it qualifies. True when no window below it has to be looked at: it is
  // registered now or was before, or it belongs to an ignored process other than the window manager.
  bool TryRegisterWindow(Window window);

 private:
  // What is to be done about a window.
  enum Task : unsigned {
    kWatch = 1U << 0,       // have the server report what happens in and to it
    kLook = 1U << 1,        // see whether it qualifies
    kTitle = 1U << 2,       // tell its title
    kIcon = 1U << 3,        // tell its icon
    kLookAround = 1U << 4,  // see whether the candidates in its top-level window qualify
    kCompare = 1U << 5,     // tell title and icon where they are not what was told last
  };

  // Hashes of what was read last of a window; nothing where it was not read.
  struct Contents {
    std::optional<std::size_t> title{};
    std::optional<std::size_t> icon{};
  };

  // What the host is to be told of a window.
  struct Report {
    std::int32_t pid;
    WindowPair pair;
    std::string name{};
    std::string path{};
    std::string title{};
    IconImage large{};
    IconImage small{};
    Contents contents{};
  };

  struct RegisteredWindow {
    std::int32_t pid;
    WindowPair pair;
  };

  // A window with too many property changes.
  struct NoisyWindow {
    bool unheard = true;
    Contents contents{};  // of a window that is not reported
  };

  // The windows below one top-level window, of which some have been visited.
  struct Scan {
    Scan(const Session& session, Window toplevel) : tree(session), walk(tree, toplevel) {}
    WindowTree tree;
    WindowWalk walk;
  };

  void NoteEvent(const XEvent& event);
  void NoteProperty(Window window, Atom property);
  void NoteDestroyed(Window window);
  // Some of the WindowAspects have changed.
  void NoteChange(Window window, unsigned aspects);
  void NoteChangeWithin(Window window, unsigned aspects);  // of the window, or around those inside of it

  // The steps, in the order of their urgency. Each returns false when it has nothing to do.
  bool Quieten();
  bool Listen();
  bool SendRemoval();
  bool TakeRemovals();
  bool SendReport();
  bool Recover();
  bool DoNextTasks();
  bool Enumerate();

  void BeginEnumeration();
  void ScanOn();
  void FinishEnumeration();
  // Reads the window manager's list and notes the windows that are new in it.
  void UpdateClientList();
  // False when it took hardly any time: neither the server nor the host was spoken to.
  bool Do(Window window, unsigned tasks);

  // Looks at a listed window. True as for TryRegisterWindow(); what is to be told of it is in report_ then.
  bool Look(Window window, WindowTree& tree);
  void ReadReport(std::int32_t pid, WindowPair pair);

  // Takes the destroyed window, and all windows of processes that are gone, out of the registry.
  void RemoveWindow(Window destroyed);
  void UpdateTitle(Window window, bool only_if_changed);
  void UpdateIcon(Window window, bool only_if_changed);
  // Where the contents of a window are kept; null where they are not.
  Contents* FindContents(Window window);

  bool IsRegistered(const RegisteredWindow& window);
  // The process that the client window is registered for, 0 when it is not.
  std::int32_t FindOwner(Window client);

  // Has the server report what happens to the window from now on.
  void Watch(Window window) const;

  const Session& session_;
  const GuestCommands& guest_commands_;
  RunningAppRegistry& registry_;
  LaunchedProcessTable& launched_;
  DesktopEntryRegistry& entries_;
  const IconFinder& icons_;

  std::unordered_map<Window, unsigned> property_events_;  // in this period
  std::vector<Window> too_noisy_;                         // not to be heard any more
  std::unordered_map<Window, NoisyWindow> noisy_;
  bool begins_to_change_ = false;
  bool has_listened_ = false;  // in this period
  std::chrono::steady_clock::time_point listen_until_;

  WindowTasks tasks_;

  bool client_list_changed_ = false;
  std::vector<WindowId> client_list_;  // as it was read last
  std::unordered_set<Window> listed_;  // the same windows
  WindowCandidates candidates_;

  std::unordered_map<Window, Contents> reported_;  // client windows, also those that a reset took out of the registry
  std::deque<Window> destroyed_;                   // of these, those that are gone
  bool other_destroyed_ = false;
  std::deque<RegisteredWindow> removals_;  // taken from the registry, to be told
  std::optional<Report> report_;
  Window at_hand_ = None;  // whose properties are being read; None when it was destroyed meanwhile

  bool enumeration_wanted_ = false;
  bool enumerating_ = false;
  bool events_lost_ = false;
  bool finish_is_told_ = false;   // at the end of the enumeration
  std::deque<Window> toplevels_;  // to be scanned
  std::unique_ptr<Scan> scan_;
  std::vector<RegisteredWindow> told_at_reset_;  // those that were being told when the registry was cleared
  std::vector<RegisteredWindow> doubtful_;       // of these, those from before the enumeration
};

}  // namespace qel
