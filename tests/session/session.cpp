#include "session/session.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <stdexcept>

#include "host/mount_namespace.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

constexpr const char* kLogFile = "/var/log/corvessan.log";

// The atoms that a session has once programs of all kinds ran in it; a bare window manager leaves some of them out.
constexpr const char* kSessionAtoms[] = {"_NET_WM_PID",
                                         "_NET_WM_STATE",
                                         "_NET_WM_STATE_HIDDEN",
                                         "_NET_ACTIVE_WINDOW",
                                         "WM_CHANGE_STATE",
                                         "_NET_WM_NAME",
                                         "UTF8_STRING",
                                         "WM_CLIENT_LEADER",
                                         "_NET_WM_ICON",
                                         "WM_PROTOCOLS",
                                         "WM_DELETE_WINDOW",
                                         "_NET_CLIENT_LIST",
                                         "WM_STATE",
                                         "_NET_WM_WINDOW_TYPE",
                                         "_NET_WM_WINDOW_TYPE_DESKTOP",
                                         "_NET_WM_WINDOW_TYPE_DOCK",
                                         "_NET_WM_WINDOW_TYPE_TOOLBAR",
                                         "_NET_WM_WINDOW_TYPE_MENU",
                                         "_NET_WM_WINDOW_TYPE_UTILITY",
                                         "_NET_WM_WINDOW_TYPE_SPLASH",
                                         "_NET_WM_WINDOW_TYPE_DIALOG",
                                         "_NET_WM_WINDOW_TYPE_DROPDOWN_MENU",
                                         "_NET_WM_WINDOW_TYPE_POPUP_MENU",
                                         "_NET_WM_WINDOW_TYPE_TOOLTIP",
                                         "_NET_WM_WINDOW_TYPE_NOTIFICATION",
                                         "_NET_WM_WINDOW_TYPE_COMBO",
                                         "_NET_WM_WINDOW_TYPE_DND",
                                         "_NET_WM_WINDOW_TYPE_NORMAL"};

bool Complain(const char* what) {
  std::fprintf(stderr, "session tests cannot run here: %s: %s\n", what, std::strerror(errno));
  return false;
}

ChildOptions AgentOptions(const std::string& display, std::vector<std::string> arguments,
                          EnvironmentChanges environment) {
  ChildOptions options;
  options.arguments = {QEL_AGENT};
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  options.environment = {{"DISPLAY", display},
                         {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                         {"GSETTINGS_BACKEND", "memory"},
                         {"LC_ALL", "C.UTF-8"},
                         {"LSAN_OPTIONS", "print_suppressions=0:suppressions=" QEL_KNOWN_LEAKS}};
  for (auto& change : environment) {
    std::erase_if(options.environment, [&](const auto& earlier) { return earlier.first == change.first; });
    options.environment.push_back(std::move(change));
  }
  return options;
}

}  // namespace

bool EnterTestNamespaces() {
  std::string error;
  if (!host::EnterPrivateMountNamespace(error)) {
    std::fprintf(stderr, "session tests cannot run here: %s\n", error.c_str());
    return false;
  }
  // Agents meet through a semaphore and a socket name of the whole machine.
  if (unshare(CLONE_NEWIPC | CLONE_NEWNET) != 0) {
    return Complain("private IPC and network namespaces");
  }
  // X servers meet by the names of their sockets.
  mkdir("/tmp/.X11-unix", 01777);
  if (mount("none", "/tmp/.X11-unix", "tmpfs", 0, "mode=1777") != 0) {
    return Complain("a private /tmp/.X11-unix");
  }
  static const TempDir log_directory;
  if (mount(log_directory.Path().c_str(), "/var/log", nullptr, MS_BIND, nullptr) != 0) {
    return Complain("an empty /var/log");
  }
  return true;
}

std::vector<std::string> LogLines() {
  std::vector<std::string> lines;
  std::ifstream file(kLogFile);
  for (std::string line; std::getline(file, line);) {
    lines.push_back(line);
  }
  return lines;
}

int LogCount(const std::string& text) {
  const auto lines = LogLines();
  return static_cast<int>(
      std::count_if(lines.begin(), lines.end(), [&](const std::string& line) { return line.ends_with("/ " + text); }));
}

bool LogContains(const std::string& text) {
  return LogCount(text) > 0;
}

void ClearLog() {
  unlink(kLogFile);
}

Agent::Agent(const std::string& display, std::vector<std::string> arguments, EnvironmentChanges environment)
    : process_(AgentOptions(display, std::move(arguments), std::move(environment))) {}

void Agent::ExpectOrderlyEnd(std::chrono::milliseconds timeout) {
  const auto status = process_.Wait(timeout);
  ASSERT_TRUE(status.has_value()) << "the agent did not end in time";
  EXPECT_EQ(status->signal, 0);
  EXPECT_EQ(status->exit_code, 0);
}

Session::Session(const std::string& window_manager, SessionAtoms atoms)
    : agent_display_(server_.Display()), window_manager_name_(window_manager), atoms_(atoms) {
  ClearLog();
  client_ = std::make_unique<XClient>(server_.Display());
  if (atoms == SessionAtoms::kComplete) {
    CompleteAtoms();
  }
  if (!window_manager_name_.empty()) {
    StartWindowManager();
  }
  std::string error;
  if (!host_.Start(error)) {
    throw std::runtime_error(error);
  }
}

void Session::StartWindowManager() {
  ChildOptions options{.arguments = {window_manager_name_},
                       .environment = {{"DISPLAY", server_.Display()}, {"NO_AT_BRIDGE", "1"}}};
  if (window_manager_name_ == "mutter" || window_manager_name_ == "xfwm4") {
    bus_ = std::make_unique<SessionBus>();
    options.environment.emplace_back("DBUS_SESSION_BUS_ADDRESS", bus_->Address());
    const bool mutter = window_manager_name_ == "mutter";
    options.arguments.emplace_back(mutter ? "--x11" : "--compositor=off");
    options.arguments.emplace_back(mutter ? "--sm-disable" : "--sm-client-disable");
  }
  window_manager_ = std::make_unique<ChildProcess>(options);
  const auto ready = [this] { return atoms_ == SessionAtoms::kComplete ? ManagesWindows() : AnnouncesItself(); };
  if (!WaitUntil(ready)) {
    throw std::runtime_error(window_manager_name_ + " does not manage windows");
  }
}

// A window that is mapped while the window manager starts may go unnoticed for ever.
bool Session::ManagesWindows() {
  const IdleProcess process;
  const Window window = client_->Open({.pid = process.Pid(), .title = "probe"});
  const bool managed = client_->WaitUntilManaged(window, std::chrono::milliseconds(200));
  client_->Close(window);
  return managed && WaitUntil([&] { return std::ranges::count(client_->ManagedWindows(), window) == 0; });
}

// As far as can be told without making an atom.
bool Session::AnnouncesItself() {
  return client_->RootHas("_NET_SUPPORTING_WM_CHECK") && client_->RootHas("_NET_CLIENT_LIST");
}

void Session::CompleteAtoms() {
  for (const char* name : kSessionAtoms) {
    client_->Intern(name);
  }
}

void Session::KillServer() {
  client_.reset();  // Xlib would end this process
  server_.Kill();
}

void Session::RestartWindowManager() {
  window_manager_->Kill(SIGKILL);
  window_manager_->Wait();
  StartWindowManager();
}

Session::~Session() {
  agent_.reset();
  host_.Stop();
  if (testing::Test::HasFailure()) {
    host_.model().Read([](const host::ModelState& state) {
      constexpr std::ptrdiff_t kMost = 200;
      const auto size = static_cast<std::ptrdiff_t>(state.events.size());
      std::for_each(state.events.end() - std::min(size, kMost), state.events.end(), [](const host::Event& event) {
        std::fprintf(stderr, "host: %s %s\n", host::KindName(host::KindOf(event.notification)),
                     host::OutcomeName(event.outcome));
      });
    });
    for (const std::string& line : LogLines()) {
      std::fprintf(stderr, "log: %s\n", line.c_str());
    }
  }
}

Agent& Session::StartAgent(std::vector<std::string> arguments, EnvironmentChanges environment) {
  agent_.reset();
  agent_ = std::make_unique<Agent>(agent_display_, std::move(arguments), std::move(environment));
  return *agent_;
}

Agent& Session::StartServingAgent(std::vector<std::string> arguments, EnvironmentChanges environment) {
  const std::uint64_t before = Count(host::MessageKind::kFinishEnum);
  Agent& agent = StartAgent(std::move(arguments), std::move(environment));
  EXPECT_TRUE(WaitForCount(host::MessageKind::kFinishEnum, before + 1));
  return agent;
}

void Session::StopAgent() {
  agent_->Signal(SIGTERM);
  agent_->ExpectOrderlyEnd();
}

IdleProcess& Session::NewProcess() {
  return *processes_.emplace_back(std::make_unique<IdleProcess>());
}

Window Session::Open(WindowTraits traits) {
  if (traits.pid == 0) {
    traits.pid = NewProcess().Pid();
  }
  const Window window = client_->Create(traits);
  if (window_manager_ == nullptr) {
    List(window);
  }
  client_->Map(window);
  EXPECT_TRUE(client_->WaitUntilManaged(window));
  return window;
}

void Session::List(Window window) {
  listed_.push_back(window);
  client_->SetClientList(listed_);
}

void Session::Settle() {
  const std::string title = "settled " + std::to_string(++settled_);
  Open({.title = title});
  EXPECT_TRUE(Sees(title));
}

std::set<std::uint32_t> Session::ListedTops() {
  std::set<std::uint32_t> tops;
  for (const Window window : client_->ManagedWindows()) {
    tops.insert(static_cast<std::uint32_t>(client_->TopLevel(window)));
  }
  return tops;
}

std::set<std::uint32_t> Session::ShownWindows() {
  std::set<std::uint32_t> shown;
  host_.model().Read([&](const host::ModelState& state) {
    for (const auto& [pid, application] : state.applications) {
      for (const auto& [id, window] : application.windows) {
        shown.insert(id);
      }
    }
  });
  return shown;
}

bool Session::ShowsClientList(std::chrono::milliseconds timeout) {
  // The numbers first: the rest asks the server about each window.
  return WaitUntil(
      [this] {
        const std::set<std::uint32_t> shown = ShownWindows();
        return shown.size() == client_->ManagedWindows().size() && shown == ListedTops();
      },
      timeout);
}

std::vector<std::string> Session::PictureFaults() {
  struct Counts {
    int added = 0;
    int removed = 0;
  };
  std::map<std::uint32_t, Counts> counts;
  std::vector<std::string> faults;
  const auto fault = [&](std::uint32_t window, const char* what) { faults.push_back(std::to_string(window) + what); };
  host_.model().Read([&](const host::ModelState& state) {
    for (const host::Event& event : state.events) {
      if (const auto* run = std::get_if<host::AddRun>(&event.notification)) {
        if (++counts[run->window].added > 1) {
          fault(run->window, " is reported again");
        }
      } else if (const auto* end = std::get_if<host::RmvRun>(&event.notification)) {
        Counts& of_window = counts[end->window];
        if (++of_window.removed > of_window.added) {
          fault(end->window, " is removed too often");
        }
      }
    }
  });
  const std::set<std::uint32_t> listed = ListedTops();
  const std::set<std::uint32_t> shown = ShownWindows();
  for (const std::uint32_t window : listed) {
    if (!shown.contains(window)) {
      fault(window, " is listed and not shown");
    }
  }
  for (const std::uint32_t window : shown) {
    if (!listed.contains(window)) {
      fault(window, " is shown and not listed");
    }
  }
  return faults;
}

bool Session::Sees(const std::string& title) {
  return host_.WaitFor([&](const host::ModelState& state) { return state.FindTitle(title) != nullptr; }, kSoon);
}

bool Session::NoLongerSees(const std::string& title) {
  return host_.WaitFor([&](const host::ModelState& state) { return state.FindTitle(title) == nullptr; }, kSoon);
}

std::optional<host::Window> Session::FindTitle(const std::string& title) {
  std::optional<host::Window> found;
  host_.model().Read([&](const host::ModelState& state) {
    if (const host::Window* window = state.FindTitle(title)) {
      found = *window;
    }
  });
  return found;
}

std::uint64_t Session::Count(host::MessageKind kind) {
  std::uint64_t count = 0;
  host_.model().Read([&](const host::ModelState& state) { count = state.Count(kind); });
  return count;
}

bool Session::WaitForCount(host::MessageKind kind, std::uint64_t count) {
  return host_.WaitFor([&](const host::ModelState& state) { return state.Count(kind) >= count; }, kSoon);
}

void Session::ExpectNoViolations() {
  host_.model().Read([](const host::ModelState& state) {
    for (const host::Event& event : state.events) {
      for (const std::string& violation : event.violations) {
        ADD_FAILURE() << host::KindName(host::KindOf(event.notification)) << ": " << violation;
      }
    }
  });
}

}  // namespace qel::test
