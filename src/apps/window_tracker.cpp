#include "apps/window_tracker.h"

#include <malloc.h>
#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cstddef>
#include <exception>
#include <functional>
#include <iterator>
#include <string_view>
#include <utility>

#include "apps/desktop_entry_match.h"
#include "apps/process_identity.h"
#include "apps/window_properties.h"
#include "base/spare_room.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

constexpr int kSmallestSide = 2;

constexpr long kWatchMask = SubstructureNotifyMask | PropertyChangeMask;
// For listed windows also StructureNotify, because a window may be moved into a frame that is not watched yet.
constexpr long kClientWatchMask = kWatchMask | StructureNotifyMask;

// Maximum number of short steps, or of windows that a scan visits, in one call of Work().
constexpr int kMostAtOnce = 64;

// A window with this many property changes in one poll period is noisy. Busy programs cause a few dozen per second.
constexpr unsigned kNoisyEvents = 500;

// How long to wait for more changes before the first one is handled. The server may serve one client for up to 20 ms
// before it sends events to another one.
constexpr std::chrono::milliseconds kNoiseWait{50};

std::size_t HashOf(const IconImage& icon) {
  return std::hash<std::string_view>()({reinterpret_cast<const char*>(icon.bytes.data()), icon.bytes.size()}) ^
         icon.width;
}

// Stores the new value. Returns false when it differs from the previous value; true when there was none.
bool IsSameAgain(std::optional<std::size_t>& before, std::size_t now) {
  return std::exchange(before, now).value_or(now) == now;
}

WindowPair ClientKey(Window client) {
  return {0, static_cast<WindowId>(client)};
}

// The title of the leader. Often the leader is the window itself, whose title the caller has already read.
std::string GetLeaderTitle(const Session& session, Window window, Window leader, const std::string& own_title) {
  if (leader == None) {
    return {};
  }
  return leader == window ? own_title : GetWindowTitle(session, leader);
}

}  // namespace

// Recording events.

void WindowTracker::Resume() {
  events_lost_ = !reported_.empty();
  property_events_.clear();
  EnumerateWindows();
}

void WindowTracker::EnumerateWindows() {
  enumeration_wanted_ = true;
}

void WindowTracker::HandleWindowEvent(const XEvent& event) {
  try {
    NoteEvent(event);
  } catch (const std::exception&) {
    events_lost_ = true;
    throw;
  }
}

void WindowTracker::NoteEvent(const XEvent& event) {
  if (event.xany.send_event != False) {
    return;  // sent by another client, not by the server
  }
  switch (event.type) {
    case CreateNotify:
      tasks_.Note(event.xcreatewindow.window, kWatch | kLook);
      break;
    case MapNotify:
      tasks_.Note(event.xmap.window, kWatch | kLook);
      NoteChangeWithin(event.xmap.window, kMapState);
      break;
    case ReparentNotify:
      tasks_.Note(event.xreparent.window, kLook);
      if (event.xreparent.parent != session_.root) {
        tasks_.Note(event.xreparent.parent, kWatch);
        NoteChangeWithin(event.xreparent.parent, kType);
      }
      NoteChangeWithin(event.xreparent.window, kAnyAspect);
      break;
    case ConfigureNotify:
      NoteChange(event.xconfigure.window, kSize);
      break;
    case DestroyNotify:
      NoteDestroyed(event.xdestroywindow.window);
      break;
    case PropertyNotify:
      NoteProperty(event.xproperty.window, event.xproperty.atom);
      break;
    default:
      break;
  }
}

void WindowTracker::NoteProperty(Window window, Atom property) {
  if (++property_events_[window] == kNoisyEvents) {
    too_noisy_.push_back(window);
  }
  const SessionAtoms& atoms = session_.atoms;
  if (window == session_.root) {
    if (property == atoms.net_client_list) {
      client_list_changed_ = true;
    }
  } else if (property == atoms.net_wm_name) {
    tasks_.Note(window, kTitle);
    change_begins_ = true;
  } else if (property == atoms.net_wm_icon) {
    if (reported_.contains(window) || window == window_being_read_) {
      tasks_.Note(window, kIcon);
      change_begins_ = true;
    }
  } else if (property == atoms.net_wm_pid) {
    NoteChange(window, kProcessId);
  } else if (property == atoms.net_wm_state) {
    NoteChange(window, kMapState);
  } else if (property == atoms.net_wm_window_type) {
    NoteChangeWithin(window, kType);
    if (!candidates_.IsEmpty()) {
      tasks_.Note(window, kLookAround);
    }
  }
}

void WindowTracker::NoteDestroyed(Window window) {
  tasks_.Forget(window);
  property_events_.erase(window);
  noisy_.erase(window);
  std::erase(too_noisy_, window);
  candidates_.Forget(window);
  if (window_being_read_ == window) {
    window_being_read_ = None;
  }
  if (report_ && report_->pair.client == window) {
    report_.reset();
  }
  if (!reported_.contains(window)) {
    other_destroyed_ = true;
  } else if (destroyed_.empty() || destroyed_.back() != window) {  // the event comes for the window and for its parent
    destroyed_.push_back(window);
  }
}

void WindowTracker::NoteChange(Window window, unsigned aspects) {
  if (candidates_.Awaits(window, aspects)) {
    tasks_.Note(window, kLook);
  }
}

void WindowTracker::NoteChangeWithin(Window window, unsigned aspects) {
  NoteChange(window, aspects);
  for (const Window inside : candidates_.AwaitingIn(window, aspects)) {
    tasks_.Note(inside, kLook);
  }
}

// Working.

bool WindowTracker::Work(bool has_backlog) {
  if (DeselectNoisy()) {
    return true;
  }
  if (has_backlog) {
    return false;
  }
  return WaitForNoise() || SendRemoval() || TakeRemovals() || SendReport() || Recover() || Enumerate() || DoNextTasks();
}

// Noisy windows.

void WindowTracker::BeginPeriod() {
  for (auto entry = noisy_.begin(); entry != noisy_.end();) {
    auto& [window, noisy] = *entry;
    if (!noisy.is_deselected) {
      entry = noisy_.erase(entry);  // it was not too noisy for a whole period
      continue;
    }
    noisy.is_deselected = false;
    Watch(window);
    change_begins_ = true;
    if (window == session_.root) {
      client_list_changed_ = true;
    } else {
      tasks_.Note(window, kLook | kCompare);
    }
    ++entry;
  }
  property_events_.clear();
  has_waited_ = false;
  GiveBackSpareRoom();
}

void WindowTracker::GiveBackSpareRoom() {
  bool gave_back = tasks_.GiveBackSpareRoom();
  gave_back = candidates_.GiveBackSpareRoom() || gave_back;
  gave_back = qel::GiveBackSpareRoom(listed_) || gave_back;
  gave_back = qel::GiveBackSpareRoom(reported_) || gave_back;
  gave_back = qel::GiveBackSpareRoom(property_events_) || gave_back;
  if (gave_back) {
    malloc_trim(0);  // the entries were many small blocks
  }
}

bool WindowTracker::DeselectNoisy() {
  if (too_noisy_.empty()) {
    return false;
  }
  for (const Window window : std::exchange(too_noisy_, {})) {
    noisy_[window].is_deselected = true;
    Watch(window);
  }
  x_api.XFlush(session_.display);
  wait_until_ = {};
  return true;
}

// Waits for events; the caller reads them.
bool WindowTracker::WaitForNoise() {
  // A window that begins to change may change continuously. This must be known before a request is sent to the server,
  // because the reply would come after all these events.
  const auto now = std::chrono::steady_clock::now();
  if (std::exchange(change_begins_, false) && !std::exchange(has_waited_, true)) {
    wait_until_ = now + kNoiseWait;
  }
  if (now >= wait_until_) {
    return false;
  }
  pollfd connection{.fd = ConnectionNumber(session_.display), .events = POLLIN, .revents = 0};
  poll(&connection, 1, static_cast<int>(kNoiseWait.count()) / 2);
  return true;
}

bool WindowTracker::DoNextTasks() {
  bool done = client_list_changed_;
  if (client_list_changed_) {
    try {
      UpdateClientList();
    } catch (const std::exception&) {
      client_list_changed_ = true;
      throw;
    }
  }
  for (int steps = 0; steps < kMostAtOnce; ++steps) {
    const auto next = tasks_.Take();
    if (!next) {
      return done;
    }
    done = true;
    if (Do(next->first, next->second)) {
      break;
    }
  }
  return done;
}

bool WindowTracker::Do(Window window, unsigned tasks) {
  bool took_time = false;
  if ((tasks & kWatch) != 0) {
    Watch(window);
  }
  if ((tasks & kLookAround) != 0) {
    WindowTree tree(session_);
    const Window toplevel = tree.TopLevelOf(window);
    NoteChangeWithin(toplevel, kType);
    took_time = true;
  }
  if ((tasks & kLook) != 0 && listed_.contains(window)) {
    took_time = true;
    // Several events announce each window. A window that is already registered for its process is not tested again.
    const std::int32_t owner = reported_.contains(window) ? FindOwner(window) : 0;
    if (owner == 0 || owner != GetWindowPid(session_, window)) {
      WindowTree tree(session_);
      Look(window, tree);
    }
    if (report_) {
      return true;  // the report has the title and the icon
    }
  }
  if ((tasks & (kTitle | kCompare)) != 0) {
    UpdateTitle(window, (tasks & kTitle) == 0);
    if ((tasks & kIcon) != 0) {
      tasks_.Note(window, kIcon);  // only one message per step
    } else if ((tasks & kCompare) != 0) {
      UpdateIcon(window, true);
    }
    return true;
  }
  if ((tasks & kIcon) != 0) {
    UpdateIcon(window, false);
    return true;
  }
  return took_time;
}

bool WindowTracker::TryRegisterWindow(Window window) {
  UpdateClientList();
  if (!listed_.contains(window)) {
    return false;
  }
  WindowTree tree(session_);
  const bool settled = Look(window, tree);
  SendReport();
  return settled;
}

// Usually one window is added or removed, so the equal beginnings and ends of the old and new list are skipped first.
void WindowTracker::UpdateClientList() {
  client_list_changed_ = false;                           // before reading, because the list may change meanwhile
  const bool is_first = listed_.empty() && enumerating_;  // then the enumeration checks all windows
  std::vector<WindowId> list = ReadClientList(session_);
  const auto [old_begin, new_begin] = std::ranges::mismatch(client_list_, list);
  const auto [old_rend, new_rend] = std::mismatch(client_list_.rbegin(), std::make_reverse_iterator(old_begin),
                                                  list.rbegin(), std::make_reverse_iterator(new_begin));
  std::unordered_set<Window> left(old_begin, old_rend.base());
  for (auto window = new_begin; window != new_rend.base(); ++window) {
    if (left.erase(*window) == 0 && listed_.insert(*window).second && !is_first) {
      tasks_.Note(*window, kLook);
    }
  }
  for (const Window window : left) {
    listed_.erase(window);
    candidates_.Forget(window);
  }
  client_list_ = std::move(list);
  if (listed_.size() != client_list_.size()) {  // the list contains a window twice
    listed_ = {client_list_.begin(), client_list_.end()};
  }
}

// Enumerating.

bool WindowTracker::Enumerate() {
  if (scan_ != nullptr) {
    ScanOn();
  } else if (!toplevels_.empty()) {
    scan_ = std::make_unique<Scan>(session_, toplevels_.front());
    toplevels_.pop_front();
  } else if (std::exchange(enumerating_, false)) {
    FinishEnumeration();
  } else if (std::exchange(enumeration_wanted_, false)) {
    finish_must_be_told_ = true;
    BeginEnumeration();
  } else {
    return false;
  }
  return true;
}

void WindowTracker::BeginEnumeration() {
  Watch(session_.root);
  scan_.reset();
  enumerating_ = true;
  cleared_before_.insert(cleared_before_.end(), cleared_while_sent_.begin(), cleared_while_sent_.end());
  cleared_while_sent_.clear();
  try {
    UpdateClientList();
    WindowTree root(session_);
    const std::vector<Window>& toplevels = root.ChildrenOf(session_.root);
    toplevels_.assign(toplevels.begin(), toplevels.end());
  } catch (const std::exception&) {
    events_lost_ = true;
    throw;
  }
}

// Continues the scan of a top-level window, which ends at the first listed window for which Look() returns true.
void WindowTracker::ScanOn() {
  for (int visits = 0; visits < kMostAtOnce; ++visits) {
    if (!scan_->walk.Next()) {
      scan_.reset();
      return;
    }
    const Window window = scan_->walk.Current();
    if (!listed_.contains(window)) {
      continue;
    }
    if (Look(window, scan_->tree)) {
      scan_.reset();
    }
    return;
  }
}

void WindowTracker::FinishEnumeration() {
  // The messages for these windows were being sent during a reset, so the host may still show them.
  for (const RegisteredWindow& window : std::exchange(cleared_before_, {})) {
    if (!IsRegistered(window)) {
      removals_.push_back(window);
    }
  }
  if (std::exchange(finish_must_be_told_, false)) {
    guest_commands_.GuestCmdFinishEnum();
  }
  malloc_trim(0);  // reading properties has left free blocks
}

// After events were lost: finds reported windows that do not exist any more, and enumerates all windows again.
bool WindowTracker::Recover() {
  if (!std::exchange(events_lost_, false)) {
    return false;
  }
  for (const auto& [window, contents] : reported_) {
    XWindowAttributes attributes;
    if (x_api.XGetWindowAttributes(session_.display, window, &attributes) == 0) {
      destroyed_.push_back(window);
    }
  }
  BeginEnumeration();
  return true;
}

// Registering.

bool WindowTracker::Look(Window window, WindowTree& tree) {
  window_being_read_ = window;
  Watch(window);
  candidates_.Locate(window, {});
  const std::vector<Window> ancestors = tree.AncestorsOf(window);
  std::ranges::for_each(ancestors, [this](Window ancestor) { Watch(ancestor); });
  if (window_being_read_ == window) {
    candidates_.Locate(window, ancestors);
  }

  XWindowAttributes attributes;
  if (x_api.XGetWindowAttributes(session_.display, window, &attributes) == 0) {
    candidates_.Forget(window);
    return false;
  }
  if (attributes.width < kSmallestSide || attributes.height < kSmallestSide) {
    candidates_.Await(window, kSize);
    return false;
  }
  if (attributes.map_state != IsViewable && !IsWindowHidden(session_, window)) {
    candidates_.Await(window, kMapState);
    return false;
  }
  const std::int32_t pid = GetWindowPid(session_, window);
  if (pid < 1) {
    candidates_.Await(window, kProcessId);
    return false;
  }
  // The most expensive test is the last: it may have to read the type of dozens of windows in a frame.
  const Window toplevel = ancestors.empty() ? window : ancestors.back();
  const std::optional<Atom> type = tree.GetWindowType(toplevel);
  if (!type || !session_.IsSharedWindowType(*type)) {
    candidates_.Await(window, kType);
    return false;
  }
  bool is_window_manager = false;
  if (IsIgnoredProcess(pid, is_window_manager)) {
    candidates_.Forget(window);
    return !is_window_manager;
  }
  const WindowPair pair{static_cast<WindowId>(toplevel), static_cast<WindowId>(window)};
  if (!IsRegistered({pid, pair})) {
    ReadReport(pid, pair);
  }
  candidates_.Forget(window);
  return true;
}

void WindowTracker::ReadReport(std::int32_t pid, WindowPair pair) {
  const DesktopEntryMatch match = MatchDesktopEntry(session_, entries_, pair.client);
  const DesktopEntry entry = match.entry != nullptr ? match.entry->second : DesktopEntry();
  const std::string path = !entry.path.empty() ? std::string(entry.path) : ExecutablePath(pid);
  const std::string base_name = BaseName(path);
  Report report{.pid = pid, .pair = pair, .name = std::string(entry.name), .path = path};

  tasks_.Drop(pair.client, kTitle);
  report.title = GetWindowTitle(session_, pair.client);
  report.contents.title = std::hash<std::string>()(report.title);
  if (report.name.empty()) {
    const Window leader = match.leader ? *match.leader : GetClientLeader(session_, pair.client);
    report.name = GetLeaderTitle(session_, pair.client, leader, report.title);
  }
  if (report.title.empty()) {
    report.title = base_name;
  }
  if (report.name.empty()) {
    report.name = base_name;
  }

  if (std::vector<std::byte> file = icons_.LoadIconFile(std::string(entry.icon), base_name); !file.empty()) {
    report.large = {.bytes = std::move(file), .height = 1, .width = 0, .argb = false};
    report.large.width = static_cast<std::uint32_t>(report.large.bytes.size());
  } else {
    tasks_.Drop(pair.client, kIcon);
    ReadWindowIcons(session_, pair.client, report.large, report.small);
    report.contents.icon = HashOf(report.large);
  }
  if (window_being_read_ == pair.client) {
    report_ = std::move(report);
  }
}

bool WindowTracker::SendReport() {
  if (!report_) {
    return false;
  }
  const Report report = *std::exchange(report_, std::nullopt);
  reported_[report.pair.client] = report.contents;
  if (!(*registry_.Lock())[report.pid].insert(report.pair).second) {
    return true;
  }
  const auto is_this = [&](const RegisteredWindow& told) { return told.pair.client == report.pair.client; };
  std::erase_if(cleared_while_sent_, is_this);
  std::erase_if(cleared_before_, is_this);
  launched_.Erase(report.pid);
  guest_commands_.GuestCmdAddRun(report.pair.toplevel, report.pid, report.name, report.path, report.title, report.large,
                                 report.small);
  if (!IsRegistered({report.pid, report.pair})) {
    cleared_while_sent_.push_back({report.pid, report.pair});
  }
  return true;
}

// Removing.

bool WindowTracker::TakeRemovals() {
  if (!destroyed_.empty()) {
    RemoveWindow(destroyed_.front());
    destroyed_.pop_front();
    return true;
  }
  if (std::exchange(other_destroyed_, false)) {
    RemoveWindow(None);
    return true;
  }
  return false;
}

void WindowTracker::RemoveWindow(Window destroyed) {
  reported_.erase(destroyed);
  const auto registry = registry_.Lock();
  for (auto app = registry->begin(); app != registry->end();) {
    const auto& [pid, windows] = *app;
    if (kill(pid, 0) == -1) {
      for (const WindowPair& pair : windows) {
        removals_.push_back({pid, pair});
        reported_.erase(pair.client);
      }
      app = registry->erase(app);
      continue;
    }
    const auto pair = windows.find(ClientKey(destroyed));
    if (pair != windows.end()) {
      // When its process id has changed, a window may be registered for two processes, so the loop continues.
      removals_.push_back({pid, *pair});
      app->second.erase(pair);
    }
    app = windows.empty() ? registry->erase(app) : std::next(app);
  }
}

bool WindowTracker::SendRemoval() {
  if (removals_.empty()) {
    return false;
  }
  const RegisteredWindow window = removals_.front();
  removals_.pop_front();
  guest_commands_.GuestCmdRmvRun(window.pid, window.pair.toplevel);
  return true;
}

// Titles and icons.

WindowTracker::Contents* WindowTracker::FindContents(Window window) {
  if (const auto reported = reported_.find(window); reported != reported_.end()) {
    return &reported->second;
  }
  const auto noisy = noisy_.find(window);
  return noisy != noisy_.end() ? &noisy->second.contents : nullptr;
}

void WindowTracker::UpdateTitle(Window window, bool only_if_changed) {
  window_being_read_ = window;
  const std::string title = GetWindowTitle(session_, window);
  const std::int32_t pid = GetWindowPid(session_, window);
  if (window_being_read_ != window) {
    return;
  }
  Contents* const contents = FindContents(window);
  const bool is_same = contents != nullptr && IsSameAgain(contents->title, std::hash<std::string>()(title));
  if (only_if_changed && (contents == nullptr || is_same)) {
    return;
  }
  guest_commands_.GuestCmdWindowTitle(static_cast<std::uint32_t>(window), pid, title);
}

void WindowTracker::UpdateIcon(Window window, bool only_if_changed) {
  const std::int32_t pid = FindOwner(window);
  if (pid < 1) {
    return;
  }
  window_being_read_ = window;
  IconImage large;
  IconImage small;
  ReadWindowIcons(session_, window, large, small);
  if (large.IsEmpty() || window_being_read_ != window) {
    return;
  }
  Contents* const contents = FindContents(window);
  const bool is_same = contents != nullptr && IsSameAgain(contents->icon, HashOf(large));
  if (only_if_changed && (contents == nullptr || is_same)) {
    return;
  }
  guest_commands_.GuestCmdUpdateAppIcon(static_cast<std::uint32_t>(window), pid, large);
}

// The registry.

bool WindowTracker::IsRegistered(const RegisteredWindow& window) {
  const auto registry = registry_.Lock();
  const auto app = registry->find(window.pid);
  return app != registry->end() && app->second.contains(window.pair);
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
  const auto noisy = noisy_.find(window);
  const long left_out = noisy != noisy_.end() && noisy->second.is_deselected ? PropertyChangeMask : NoEventMask;
  x_api.XSelectInput(session_.display, window, (listed_.contains(window) ? kClientWatchMask : kWatchMask) & ~left_out);
}

}  // namespace qel
