#include "host/model.h"

namespace qel::host {
namespace {

constexpr std::size_t kMostEvents = 100'000;
constexpr std::size_t kMostEventBytes = 256 << 20;

std::size_t IconBytes(const Notification& notification) {
  if (const auto* run = std::get_if<AddRun>(&notification)) {
    return run->icon.ByteCount() + (run->small_icon ? run->small_icon->ByteCount() : 0);
  }
  if (const auto* update = std::get_if<UpdateAppIcon>(&notification)) return update->icon.ByteCount();
  std::size_t sum = 0;
  if (const auto* menu = std::get_if<AppMenu>(&notification)) {
    for (const MenuEntry& entry : menu->entries) sum += entry.icon ? entry.icon->ByteCount() : 0;
  }
  return sum;
}

// Updates the state for one message that was taken.
class Follower {
 public:
  Follower(ModelState& state, Event& event, std::set<pid_t>& resetting)
      : state_(state), event_(event), resetting_(resetting) {}

  void operator()(const Probe&) {}
  void operator()(const Fetch&) {}
  void operator()(const Unknown&) {}

  void operator()(const RegisterService& service) {
    if (!state_.services.emplace(event_.agent, service).second) Remark("registers a second time");
  }

  void operator()(const UnregisterService& service) {
    const auto found = state_.services.find(event_.agent);
    if (found == state_.services.end() || found->second.name != service.name) {
      Remark("unregisters a service that it did not register");
    } else {
      state_.services.erase(found);
    }
  }

  void operator()(const ToolState& tool) {
    state_.tool_active = tool.active;
    if (tool.active) state_.enumeration_finished = false;
    // An agent reports its windows again only after a reset. Without a reset the reported windows are kept.
    if (tool.active && resetting_.erase(event_.agent) > 0) {
      state_.applications.clear();
      state_.hidden_windows.clear();
    }
  }

  void operator()(const AddRun& run) {
    Application& application = state_.applications[run.pid];
    application.pid = run.pid;
    const auto known = application.windows.find(run.window);
    if (known != application.windows.end() && known->second.agent == event_.agent) {
      Remark(Format("window 0x%x of process %u is added a second time", run.window, run.pid));
    }
    application.windows[run.window] = {run.window, event_.agent, run.name,      run.path,
                                       run.title,  run.icon,     run.small_icon};
  }

  void operator()(const RmvRun& run) {
    state_.hidden_windows.erase(run.window);
    const auto application = state_.applications.find(run.pid);
    if (application == state_.applications.end() || application->second.windows.erase(run.window) == 0) {
      Remark(Format("window 0x%x of process %u is removed, but it is not known", run.window, run.pid));
    } else if (application->second.windows.empty()) {
      state_.applications.erase(application);
    }
  }

  void operator()(const HiddenWindows& hidden) {
    state_.last_hidden = hidden;
    for (const std::uint32_t window : hidden.windows) {
      state_.hidden_windows.insert(window);
      if (state_.FindWindow(window) == nullptr) Remark(Format("hidden window 0x%x is not known", window));
    }
  }

  void operator()(const WindowTitle& title) {
    Application* application = Known(title.pid);
    if (application == nullptr) return;
    if (Window* window = Named(*application, title.window)) {
      window->title = title.title;
    } else {
      application->inner_titles[title.window] = title.title;
    }
  }

  void operator()(const FinishEnum&) { state_.enumeration_finished = true; }

  void operator()(const RmvRunByPath& run) {
    if (state_.applications.erase(run.pid) > 0) Remark(Format("process %u is removed with its windows", run.pid));
  }

  void operator()(const AppMenu& menu) { state_.menu = menu; }

  void operator()(const UpdateAppIcon& update) {
    Application* application = Known(update.pid);
    if (application == nullptr) return;
    if (Window* window = Named(*application, update.window)) {
      window->icon = update.icon;
    } else {
      application->inner_icons[update.window] = update.icon;
    }
  }

 private:
  void Remark(std::string text) { event_.remarks.push_back(std::move(text)); }

  Application* Known(std::uint32_t pid) {
    const auto found = state_.applications.find(pid);
    if (found != state_.applications.end()) return &found->second;
    Remark(Format("process %u is not known", pid));
    return nullptr;
  }

  // The reported window for a change of an application's own window; null when it cannot be determined.
  static Window* Named(Application& application, std::uint32_t id) {
    const auto found = application.windows.find(id);
    if (found != application.windows.end()) return &found->second;
    return application.windows.size() == 1 ? &application.windows.begin()->second : nullptr;
  }

  ModelState& state_;
  Event& event_;
  std::set<pid_t>& resetting_;
};

}  // namespace

const char* OutcomeName(Outcome outcome) {
  switch (outcome) {
    case Outcome::kTaken:
      return "taken";
    case Outcome::kResubmit:
      return "resubmit";
    case Outcome::kFailed:
      return "failed";
    case Outcome::kRejected:
      return "rejected";
    case Outcome::kWriteFailed:
      return "write-failed";
  }
  return "";
}

bool IsIdleFetch(const Event& event) {
  return std::holds_alternative<Fetch>(event.notification) && !event.command && event.outcome == Outcome::kTaken &&
         event.violations.empty() && event.remarks.empty();
}

const Window* ModelState::FindWindow(std::uint32_t id) const {
  for (const auto& [pid, application] : applications) {
    const auto found = application.windows.find(id);
    if (found != application.windows.end()) return &found->second;
  }
  return nullptr;
}

const Window* ModelState::FindTitle(const std::string& title) const {
  for (const auto& [pid, application] : applications) {
    for (const auto& [id, window] : application.windows) {
      if (window.title == title) return &window;
    }
  }
  return nullptr;
}

std::size_t ModelState::WindowCount() const {
  std::size_t count = 0;
  for (const auto& [pid, application] : applications) count += application.windows.size();
  return count;
}

std::uint64_t Model::Apply(Event event) {
  std::uint64_t sequence = 0;
  {
    const std::lock_guard lock(mutex_);
    sequence = ++state_.messages;
    event.sequence = sequence;
    event.time = std::chrono::system_clock::now();
    event.arrival = std::chrono::steady_clock::now();
    if (event.outcome == Outcome::kTaken) {
      ++state_.counts[event.notification.index()];
      // The follower adds remarks to the event while it looks at the notification in it.
      std::visit(Follower(state_, event, resetting_), event.notification);
    }
    state_.violations += event.violations.size();
    state_.remarks += event.remarks.size();
    event_bytes_ += IconBytes(event.notification);
    state_.events.push_back(std::move(event));
    while (state_.events.size() > kMostEvents || (event_bytes_ > kMostEventBytes && state_.events.size() > 1)) {
      event_bytes_ -= IconBytes(state_.events.front().notification);
      state_.events.pop_front();
    }
  }
  changed_.notify_all();
  return sequence;
}

void Model::CommandServed(pid_t agent, const HostCommand& command) {
  const std::lock_guard lock(mutex_);
  if (command.IsReset()) resetting_.insert(agent);
  if (const auto window = command.ActivatedWindow()) state_.hidden_windows.erase(*window);
}

void Model::Read(const std::function<void(const ModelState&)>& reader) const {
  const std::lock_guard lock(mutex_);
  reader(state_);
}

ModelState Model::Snapshot() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

bool Model::WaitFor(const Predicate& predicate, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return predicate(state_); });
}

}  // namespace qel::host
