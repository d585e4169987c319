#include "apps/window_tracker.h"

#include <X11/Xatom.h>
#include <signal.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "apps/desktop_entry_match.h"
#include "apps/process_identity.h"
#include "apps/window_properties.h"
#include "apps/window_property.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

constexpr int kSmallestSide = 2;
constexpr long kWatchMask = SubstructureNotifyMask | PropertyChangeMask;

WindowProperty ReadClientList(const Session& session) {
  return {session, session.root, session.atoms.net_client_list, XA_WINDOW, WindowProperty::kAll};
}

WindowPair ClientKey(Window client) {
  return {0, static_cast<WindowId>(client)};
}

// A leader is often the window itself, whose title the caller has read.
std::string GetLeaderTitle(const Session& session, Window window, Window leader, const std::string& own_title) {
  if (leader == None) {
    return {};
  }
  return leader == window ? own_title : GetWindowTitle(session, leader);
}

}  // namespace

void WindowTracker::EnumerateWindows() {
  std::unordered_set<Window> listed;
  {
    const WindowProperty client_list = ReadClientList(session_);
    listed.reserve(client_list.ItemCount());
    for (std::size_t i = 0; i < client_list.ItemCount(); ++i) {
      listed.insert(client_list.Item(i));
    }
  }
  WindowTree root(session_);
  for (const Window toplevel : root.ChildrenOf(session_.root)) {
    ScanWindow(toplevel, listed);
  }
}

void WindowTracker::ScanWindow(Window toplevel, const std::unordered_set<Window>& listed) {
  WindowTree tree(session_);
  WindowWalk walk(tree, toplevel);
  while (walk.Next()) {
    if (!listed.contains(walk.Current()) || !RegisterListedWindow(walk.Current(), tree, toplevel)) {
      continue;
    }
    const std::span<const Window> ancestors = walk.Ancestors();
    std::for_each(ancestors.rbegin(), ancestors.rend(), [this](Window ancestor) { Watch(ancestor); });
    return;
  }
}

bool WindowTracker::TryRegisterWindow(Window window) {
  {
    const WindowProperty client_list = ReadClientList(session_);
    std::size_t i = client_list.ItemCount();
    while (i > 0 && client_list.Item(i - 1) != window) {
      --i;
    }
    if (i == 0) {
      return false;
    }
  }
  WindowTree tree(session_);
  return RegisterListedWindow(window, tree, None);
}

bool WindowTracker::RegisterListedWindow(Window window, WindowTree& tree, Window toplevel) {
  XWindowAttributes attributes;
  if (x_api.XGetWindowAttributes(session_.display, window, &attributes) == 0) {
    return false;
  }
  if (attributes.width < kSmallestSide || attributes.height < kSmallestSide) {
    return false;
  }

  if (toplevel == None) {
    toplevel = tree.TopLevelOf(window);
  }
  const std::optional<Atom> type = tree.GetWindowType(toplevel);
  if (!type || !session_.IsSharedWindowType(*type)) {
    return false;
  }

  // A window that was on its way to the screen at the first look may have arrived.
  const bool viewable =
      attributes.map_state == IsViewable ||
      (x_api.XGetWindowAttributes(session_.display, window, &attributes) != 0 && attributes.map_state == IsViewable);
  if (!viewable && !IsWindowHidden(session_, window)) {
    return false;
  }

  const std::int32_t pid = GetWindowPid(session_, window);
  if (pid < 1) {
    return false;
  }
  bool is_window_manager = false;
  if (IsIgnoredProcess(pid, is_window_manager)) {
    return !is_window_manager;
  }

  const WindowPair pair{static_cast<WindowId>(toplevel), static_cast<WindowId>(window)};
  if (!InsertPair(pid, pair)) {
    return true;
  }
  launched_.Erase(pid);
  ReportWindow(pid, pair);
  return true;
}

bool WindowTracker::InsertPair(std::int32_t pid, WindowPair pair) {
  const auto registry = registry_.Lock();
  return (*registry)[pid].insert(pair).second;
}

void WindowTracker::ReportWindow(std::int32_t pid, WindowPair pair) const {
  const DesktopEntryMatch match = MatchDesktopEntry(session_, entries_, pair.client);
  const DesktopEntry entry = match.entry != nullptr ? match.entry->second : DesktopEntry();
  const std::string path = !entry.path.empty() ? std::string(entry.path) : ExecutablePath(pid);
  const std::string base_name = BaseName(path);

  std::string title = GetWindowTitle(session_, pair.client);
  std::string name(entry.name);
  if (name.empty()) {
    const Window leader = match.leader ? *match.leader : GetClientLeader(session_, pair.client);
    name = GetLeaderTitle(session_, pair.client, leader, title);
  }
  if (title.empty()) {
    title = base_name;
  }
  if (name.empty()) {
    name = base_name;
  }

  IconImage large;
  IconImage small;
  if (std::vector<std::byte> file = icons_.LoadIconFile(std::string(entry.icon), base_name); !file.empty()) {
    large = {.bytes = std::move(file), .height = 1, .width = 0, .argb = false};
    large.width = static_cast<std::uint32_t>(large.bytes.size());
  } else {
    ReadWindowIcons(session_, pair.client, large, small);
  }
  guest_commands_.GuestCmdAddRun(pair.toplevel, pid, name, path, title, large, small);
}

void WindowTracker::HandleWindowEvent(const XEvent& event) {
  switch (event.type) {
    case CreateNotify:
      LookAt(event.xcreatewindow.window);
      Watch(event.xcreatewindow.window);
      break;
    case MapNotify:
      LookAt(event.xmap.window);
      Watch(event.xmap.window);
      break;
    case ReparentNotify:
      LookAt(event.xreparent.window);
      Watch(event.xreparent.parent);
      break;
    case DestroyNotify:
      RemoveWindow(event.xdestroywindow.window);
      break;
    case PropertyNotify:
      if (event.xproperty.atom == session_.atoms.net_wm_name) {
        UpdateTitle(event.xproperty.window);
      }
      if (event.xproperty.atom == session_.atoms.net_wm_icon) {
        UpdateIcon(event.xproperty.window);
      }
      break;
    default:
      break;
  }
}

// Several events announce each new window. For one that is registered for its process already nothing would come of the
// tests, which cost a round trip each.
void WindowTracker::LookAt(Window window) {
  const std::int32_t owner = FindOwner(window);
  if (owner != 0 && owner == GetWindowPid(session_, window)) {
    return;
  }
  TryRegisterWindow(window);
}

void WindowTracker::RemoveWindow(Window destroyed) {
  const auto registry = registry_.Lock();
  for (auto app = registry->begin(); app != registry->end();) {
    const auto& [pid, windows] = *app;
    if (kill(pid, 0) == -1) {
      for (const WindowPair& pair : windows) {
        guest_commands_.GuestCmdRmvRun(pid, pair.toplevel);
      }
      app = registry->erase(app);
      continue;
    }
    const auto pair = windows.find(ClientKey(destroyed));
    if (pair != windows.end()) {
      guest_commands_.GuestCmdRmvRun(pid, pair->toplevel);
      app->second.erase(pair);
      if (windows.empty()) {
        registry->erase(app);
      }
      return;
    }
    ++app;
  }
}

void WindowTracker::UpdateTitle(Window window) const {
  const std::string title = GetWindowTitle(session_, window);
  const std::int32_t pid = GetWindowPid(session_, window);
  guest_commands_.GuestCmdWindowTitle(static_cast<std::uint32_t>(window), pid, title);
}

void WindowTracker::UpdateIcon(Window window) {
  const std::int32_t pid = FindOwner(window);
  if (pid < 1) {
    return;
  }
  IconImage large;
  IconImage small;
  ReadWindowIcons(session_, window, large, small);
  if (large.IsEmpty()) {
    return;
  }
  guest_commands_.GuestCmdUpdateAppIcon(static_cast<std::uint32_t>(window), pid, large);
}

std::int32_t WindowTracker::FindOwner(Window client) {
  const auto registry = registry_.Lock();
  for (const auto& [pid, windows] : *registry) {
    if (windows.contains(ClientKey(client))) {
      return pid;
    }
  }
  return 0;
}

void WindowTracker::Watch(Window window) const {
  x_api.XSelectInput(session_.display, window, kWatchMask);
}

}  // namespace qel
