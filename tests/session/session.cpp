#include "session/session.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
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

ChildOptions AgentOptions(const std::string& display, std::vector<std::string> arguments,
                          EnvironmentChanges environment, std::vector<std::string> wrapper) {
  ChildOptions options{.arguments = std::move(wrapper),
                       .environment = {{"DISPLAY", display},
                                       {"DBUS_SESSION_BUS_ADDRESS", "disabled:"},
                                       {"GSETTINGS_BACKEND", "memory"},
                                       {"LC_ALL", "C.UTF-8"},
                                       {"LSAN_OPTIONS", "print_suppressions=0:suppressions=" QEL_KNOWN_LEAKS}}};
  options.arguments.emplace_back(QEL_AGENT);
  options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
  for (auto& change : environment) {
    std::erase_if(options.environment, [&](const auto& earlier) { return earlier.first == change.first; });
    options.environment.push_back(std::move(change));
  }
  return options;
}

}  // namespace

bool EnterTestNamespaces() {
  static const TempDir log_directory;
  std::string error;
  bool entered = host::EnterPrivateMountNamespace(error);
  if (entered) {
    mkdir("/tmp/.X11-unix", 01777);
    // Agents share a semaphore and a socket name on the whole machine, and X servers share a directory of sockets.
    entered = unshare(CLONE_NEWIPC | CLONE_NEWNET) == 0 &&
              mount("none", "/tmp/.X11-unix", "tmpfs", 0, "mode=1777") == 0 &&
              mount(log_directory.Path().c_str(), "/var/log", nullptr, MS_BIND, nullptr) == 0;
    error = std::strerror(errno);
  }
  if (!entered) {
    std::fprintf(stderr, "session tests cannot run here, without private namespaces: %s\n", error.c_str());
  }
  return entered;
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
  return static_cast<int>(
      std::ranges::count_if(LogLines(), [&](const std::string& line) { return line.ends_with("/ " + text); }));
}

bool WaitForLog(const std::string& text, int count) {
  return WaitUntil([&] { return LogCount(text) >= count; }, kSoon);
}

void ClearLog() {
  unlink(kLogFile);
}

int ConsoleOwners() {
  return semctl(semget(ftok("/usr/bin/qeltdl", 1234), 1, 0), 0, GETVAL);
}

void MakeSessionAtoms(XClient& client, std::size_t first, std::size_t end) {
  constexpr const char* kNames[] = {
#define QEL_SESSION_ATOM(member, name) name,
#define QEL_WINDOW_TYPE(row, name) name,
#include "apps/session_atoms.def"
#undef QEL_SESSION_ATOM
#undef QEL_WINDOW_TYPE
  };
  std::for_each(kNames + first, kNames + std::min(end, std::size(kNames)),
                [&](const char* name) { client.Intern(name); });
}

Agent::Agent(const std::string& display, std::vector<std::string> arguments, EnvironmentChanges environment,
             std::vector<std::string> wrapper)
    : ChildProcess(AgentOptions(display, std::move(arguments), std::move(environment), std::move(wrapper))) {}

void Agent::ExpectOrderlyEnd() {
  const auto status = Wait(kStopTime);
  ASSERT_TRUE(status.has_value()) << "the agent did not end in time";
  EXPECT_EQ(status->signal, 0);
  EXPECT_EQ(status->exit_code, 0);
}

void Agent::Stop() {
  Kill(SIGTERM);
  ExpectOrderlyEnd();
}

Session::Session(const std::string& window_manager)
    : agent_display_(server_.Display()), window_manager_name_(window_manager) {
  ClearLog();
  client_ = std::make_unique<XClient>(server_.Display());
  MakeSessionAtoms(*client_);
  if (!window_manager_name_.empty()) {
    StartWindowManager();
  }
  host_.SetObserver([this] { OnMessage(); });
  std::string error;
  if (!host_.Start(error)) {
    throw std::runtime_error(error);
  }
}

void Session::OnMessage() {
  host_.model().Read([this](const host::ModelState& state) {
    const host::Event& event = state.events.back();
    const auto* const tool_state = std::get_if<host::ToolState>(&event.notification);
    if (tool_state != nullptr && tool_state->active) {
      ready_.insert(event.agent);
    } else if (tool_state != nullptr && ready_.erase(event.agent) > 0) {
      EXPECT_EQ(ConsoleOwners(), 1) << "the console was released before the host was told";
    }
    for (const std::string& violation : event.violations) {
      ADD_FAILURE() << host::KindName(host::KindOf(event.notification)) << ": " << violation;
    }
  });
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
  if (!WaitUntil([this] { return IsManaging(); }, kSoon)) {
    throw std::runtime_error(window_manager_name_ + " does not manage windows");
  }
}

// Opens a new window at each call: a window manager may never notice a window that was mapped during its start.
bool Session::IsManaging() {
  const IdleProcess process;
  const Window window = client_->Open({.pid = process.Pid(), .title = "probe"});
  const bool managed = client_->WaitUntilManaged(window, std::chrono::milliseconds(200));
  client_->Close(window);
  return managed && WaitUntil([&] { return std::ranges::count(client_->ManagedWindows(), window) == 0; });
}

void Session::KillServer() {
  client_.reset();  // without this, Xlib would end the test process
  server_.Kill();
}

void Session::RestartWindowManager() {
  window_manager_->Kill(SIGKILL);
  window_manager_->Wait();
  StartWindowManager();
}

Session::~Session() {
  if (agent_ != nullptr && !agent_->Wait(std::chrono::milliseconds(0))) {
    agent_->Stop();
  }
  agent_.reset();
  host_.Stop();
  if (testing::Test::HasFailure()) {
    for (const host::Event& event : host_.model().Snapshot().events) {
      std::fprintf(stderr, "host: %s %s\n", host::KindName(host::KindOf(event.notification)),
                   host::OutcomeName(event.outcome));
    }
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
  Agent& agent = StartAgent(std::move(arguments), std::move(environment));
  EXPECT_TRUE(WaitUntil([&] { return Count(host::MessageKind::kFinishEnum, agent.Pid()) > 0; }, kSoon));
  return agent;
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
  listed_.push_back(static_cast<long>(window));
  client_->Set(client_->Root(), "_NET_CLIENT_LIST", "WINDOW", 32, listed_);
}

void Session::Settle() {
  const std::string title = "settled " + std::to_string(++settled_);
  Open({.title = title});
  EXPECT_TRUE(Sees(title));
}

bool Session::ShowsClientList() {
  const auto equal = [this] {
    std::set<std::uint32_t> shown;
    host_.model().Read([&](const host::ModelState& state) {
      for (const auto& [pid, application] : state.applications) {
        for (const auto& [id, window] : application.windows) shown.insert(id);
      }
    });
    // Compare the numbers first, because Id() asks the server.
    const std::vector<Window> listed = client_->ManagedWindows();
    return shown.size() == listed.size() &&
           std::ranges::all_of(listed, [&](Window window) { return shown.contains(Id(window)); });
  };
  return WaitUntil(equal, kSoon);
}

std::vector<std::string> Session::PictureFaults() {
  std::map<std::uint32_t, int> added;
  std::map<std::uint32_t, int> removed;
  std::vector<std::string> faults;
  if (!ShowsClientList()) {
    faults.emplace_back("the windows that are shown are not those that are listed");
  }
  for (const host::Event& event : host_.model().Snapshot().events) {
    const auto* const run = std::get_if<host::AddRun>(&event.notification);
    const auto* const end = std::get_if<host::RmvRun>(&event.notification);
    if (run != nullptr && ++added[run->window] > 1) {
      faults.push_back(std::to_string(run->window) + " is reported again");
    } else if (end != nullptr && ++removed[end->window] > added[end->window]) {
      faults.push_back(std::to_string(end->window) + " is removed too often");
    }
  }
  return faults;
}

bool Session::Sees(const std::string& title) {
  return WaitFor([&](const host::ModelState& state) { return state.FindTitle(title) != nullptr; });
}

bool Session::NoLongerSees(const std::string& title) {
  return WaitFor([&](const host::ModelState& state) { return state.FindTitle(title) == nullptr; });
}

bool Session::WaitForCount(host::MessageKind kind, std::uint64_t count) {
  return WaitFor([&](const host::ModelState& state) { return state.Count(kind) >= count; });
}

std::optional<host::Window> Session::FindTitle(const std::string& title) {
  const host::ModelState state = host_.model().Snapshot();
  const host::Window* const window = state.FindTitle(title);
  return window != nullptr ? std::optional(*window) : std::nullopt;
}

std::uint64_t Session::Count(host::MessageKind kind, pid_t agent) {
  std::uint64_t count = 0;
  host_.model().Read([&](const host::ModelState& state) {
    const auto counts = [&](const host::Event& event) {
      return event.outcome == host::Outcome::kTaken && event.agent == agent && host::KindOf(event.notification) == kind;
    };
    count = agent == 0 ? state.Count(kind) : static_cast<std::uint64_t>(std::ranges::count_if(state.events, counts));
  });
  return count;
}

}  // namespace qel::test
