// Decides which windows belong to shared applications, updates the registry, and informs the host.
//
// Events are only recorded, as tasks per window. Work() does the tasks in small steps: a step reads the properties of a
// window, or sends one message to the host. During a step, each request to the server may deliver new events. If these
// make the data of the step invalid (the window was destroyed), the step sends no message.
//
// A window whose properties change too often is noisy: its property events are not selected for a while, and its title
// and icon are read once per period instead. Otherwise its events would accumulate, because each reply of the server
// comes after all earlier events.
//
// No change is missed, because events are selected before the current state is read: on the root window before the list
// of windows is read, and on a window and its ancestors before the window's properties are read. A window is checked
// when the window manager lists it. If it fails a test, it is checked again when a value of that test changes.
//
// Worker thread only. RegistryLock is never held during an X call, because a lost connection ends the thread inside of
// that call.
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
  // The caller owns all arguments, and they must outlive the tracker.
  WindowTracker(const Session& session, const GuestCommands& guest_commands, RunningAppRegistry& registry,
                LaunchedProcessTable& launched, DesktopEntryRegistry& entries, const IconFinder& icons)
      : session_(session),
        guest_commands_(guest_commands),
        registry_(registry),
        launched_(launched),
        entries_(entries),
        icons_(icons) {}

  // Like EnumerateWindows(); also finds windows that were destroyed meanwhile. Must be called after a time without
  // events.
  void Resume();

  // Requests an enumeration: Work() registers and reports each window that passes the tests and is not registered yet,
  // and then tells the host that the enumeration is finished. A current enumeration is finished first.
  void EnumerateWindows();

  // Records CreateNotify, MapNotify, ReparentNotify, ConfigureNotify, DestroyNotify and PropertyNotify; ignores other
  // events. Makes no X call and sends no message.
  void HandleWindowEvent(const XEvent& event);

  // Does one step. Returns false when there is nothing to do. While unread events are waiting (`has_backlog`), the only
  // step is to stop selecting property events of noisy windows.
  bool Work(bool has_backlog = false);

  // Must be called once per poll period. Selects the property events of noisy windows again.
  void BeginPeriod();

  // Checks one window, and registers and reports it if it passes the tests. Returns true when no window below it must
  // be checked: it is registered, or it belongs to an ignored process other than the window manager.
  bool TryRegisterWindow(Window window);

 private:
  // The tasks for a window.
  enum Task : unsigned {
    kWatch = 1U << 0,       // select its events
    kLook = 1U << 1,        // check whether it must be registered
    kTitle = 1U << 2,       // send its title
    kIcon = 1U << 3,        // send its icon
    kLookAround = 1U << 4,  // check the candidates in its top-level window
    kCompare = 1U << 5,     // send title and icon if they have changed since they were read last
  };

  // Hashes of the title and icon that were read last; not set when they were not read.
  struct Contents {
    std::optional<std::size_t> title{};
    std::optional<std::size_t> icon{};
  };

  // The data of a window that will be reported to the host.
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
    bool is_deselected = true;
    Contents contents{};  // for a window that is not reported
  };

  // The state of a walk over the windows in one top-level window.
  struct Scan {
    Scan(const Session& session, Window toplevel) : tree(session), walk(tree, toplevel) {}
    WindowTree tree;
    WindowWalk walk;
  };

  void NoteEvent(const XEvent& event);
  void NoteProperty(Window window, Atom property);
  void NoteDestroyed(Window window);
  // Notes that some of the WindowAspects of the window have changed.
  void NoteChange(Window window, unsigned aspects);
  void NoteChangeWithin(Window window, unsigned aspects);  // also for the candidates inside of the window

  // After a time with very many windows.
  void GiveBackSpareRoom();

  // The steps, the most urgent first. Each returns false when it has nothing to do.
  bool DeselectNoisy();
  bool WaitForNoise();
  bool SendRemoval();
  bool TakeRemovals();
  bool SendReport();
  bool Recover();
  bool DoNextTasks();
  bool Enumerate();

  void BeginEnumeration();
  void ScanOn();
  void FinishEnumeration();
  // Reads the window manager's list of windows and notes a task for each new window.
  void UpdateClientList();
  // Does the tasks of a window. Returns false when no reply of the server was needed and no message was sent.
  bool Do(Window window, unsigned tasks);

  // Checks a listed window. Returns the same as TryRegisterWindow(). If the window must be reported, sets report_.
  bool Look(Window window, WindowTree& tree);
  void ReadReport(std::int32_t pid, WindowPair pair);

  // Removes the destroyed window, and all windows of processes that have ended, from the registry.
  void RemoveWindow(Window destroyed);
  void UpdateTitle(Window window, bool only_if_changed);
  void UpdateIcon(Window window, bool only_if_changed);
  // The stored contents of a window; null when there are none.
  Contents* FindContents(Window window);

  bool IsRegistered(const RegisteredWindow& window);
  // The process for which the client window is registered; 0 when it is not registered.
  std::int32_t FindOwner(Window client);

  // Selects the events of the window.
  void Watch(Window window) const;

  const Session& session_;
  const GuestCommands& guest_commands_;
  RunningAppRegistry& registry_;
  LaunchedProcessTable& launched_;
  DesktopEntryRegistry& entries_;
  const IconFinder& icons_;

  std::unordered_map<Window, unsigned> property_events_;  // number of events in this period
  std::vector<Window> too_noisy_;                         // their property events will be deselected
  std::unordered_map<Window, NoisyWindow> noisy_;
  bool change_begins_ = false;
  bool has_waited_ = false;  // in this period
  std::chrono::steady_clock::time_point wait_until_;

  WindowTasks tasks_;

  bool client_list_changed_ = false;
  std::vector<WindowId> client_list_;  // as read the last time
  std::unordered_set<Window> listed_;  // the same windows
  WindowCandidates candidates_;

  std::unordered_map<Window, Contents> reported_;  // client windows, also those that a reset has removed from registry_
  std::deque<Window> destroyed_;                   // those of reported_ that were destroyed
  bool other_destroyed_ = false;
  std::deque<RegisteredWindow> removals_;  // removed from the registry; the messages are not sent yet
  std::optional<Report> report_;
  Window window_being_read_ = None;  // the window whose properties are being read; None when it was destroyed meanwhile

  bool enumeration_wanted_ = false;
  bool enumerating_ = false;
  bool events_lost_ = false;
  bool finish_must_be_told_ = false;  // the host must be told the end of the enumeration
  std::deque<Window> toplevels_;      // still to be scanned
  std::unique_ptr<Scan> scan_;
  // Windows whose report was being sent when the registry was cleared: since the current enumeration began, and before.
  std::vector<RegisteredWindow> cleared_while_sent_;
  std::vector<RegisteredWindow> cleared_before_;
};

}  // namespace qel
