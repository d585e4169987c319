// A whole session for the real program: X server, window manager, host and agent.
#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/host.h"
#include "session/test_window.h"
#include "support/child_process.h"
#include "support/session_bus.h"
#include "support/x_server.h"

namespace qel::test {

// The limit for actions without a promised time, long enough for a machine that is ten times slower than usual.
inline constexpr std::chrono::seconds kSoon{60};
// Added to promised times, because tests run with sanitizers and on busy machines.
inline constexpr std::chrono::seconds kSlack{10};
// Sanitizers make the agent slower, and search for leaks at its end.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::chrono::milliseconds kSanitizerTime{1500};
#else
inline constexpr std::chrono::milliseconds kSanitizerTime{0};
#endif
// The limit for a stop: a second and a poll period, or 3.5 s if the worker waits for another process.
inline constexpr std::chrono::milliseconds kStopTime = std::chrono::milliseconds(3500) + kSanitizerTime;

// The window managers that the tests use.
inline constexpr const char* kWindowManagers[] = {"metacity", "mutter", "icewm", "openbox", "xfwm4"};

// Isolates this test program from others and from a real agent on this machine. main() calls it first. Enters private
// mount, IPC and network namespaces, and mounts empty directories on /var/log and on the directory of the X sockets. If
// this is not possible, prints the reason and returns false.
bool EnterTestNamespaces();

inline constexpr const char* kLogFile = "/var/log/corvessan.log";
// All lines in the log of this test program's agents.
std::vector<std::string> LogLines();
// The number of lines with this text.
int LogCount(const std::string& text);
inline bool LogContains(const std::string& text) {
  return LogCount(text) > 0;
}
bool WaitForLog(const std::string& text, int count = 1);
void ClearLog();

// The number of agents that own the console, according to their semaphore.
int ConsoleOwners();

// Variables to set. A variable without a value is removed.
using EnvironmentChanges = decltype(ChildOptions::environment);

struct Agent : ChildProcess {
  // The agent gets the test's environment with this DISPLAY, without a session bus, and with these changes. `wrapper`
  // is the beginning of the command line: a program that runs the agent, with its arguments.
  Agent(const std::string& display, std::vector<std::string> arguments, EnvironmentChanges environment = {},
        std::vector<std::string> wrapper = {});

  // Waits for the end. The test fails if it is too late or the status is not 0.
  void ExpectOrderlyEnd();
  // Sends SIGTERM and expects a normal end.
  void Stop();
};

// Creates the atoms that the agent needs, or a range of them. On a real display, other programs have created them. The
// first 15 are the session's atoms; those of the window types follow.
void MakeSessionAtoms(XClient& client, std::size_t first = 0, std::size_t end = SIZE_MAX);

// The destructor stops the agent if it still runs. The test fails if a message has an invalid format, or if an agent
// has released the console before it told the host that it is not ready.
class Session {
 public:
  // The name of a window manager from the list above, or "" for none.
  explicit Session(const std::string& window_manager = "openbox");
  ~Session();

  // Kills the X server, like a crash.
  void KillServer();
  // Kills the window manager, like a crash, and starts a new one.
  void RestartWindowManager();

  const XServer& Server() const { return server_; }
  bool HasWindowManager() const { return window_manager_ != nullptr; }
  XClient& Client() { return *client_; }
  host::Host& Host() { return host_; }

  // Sets the display for new agents, which is otherwise the server's.
  void SetAgentDisplay(const std::string& display) { agent_display_ = display; }

  Agent& StartAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  // Starts an agent and waits until its enumeration is finished.
  Agent& StartServingAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  void StopAgent() { agent_->Stop(); }

  // Opens a window and waits until the window manager manages it. Without a process id in `traits`, a new process owns
  // the window. Without a window manager, the window is added to the client list before it is mapped.
  Window Open(WindowTraits traits);
  IdleProcess& NewProcess();
  // Adds the window to the client list, in a session without a window manager.
  void List(Window window);
  // The window's id in messages: its top-level window, which may be a frame.
  std::uint32_t Id(Window window) { return static_cast<std::uint32_t>(client_->TopLevel(window)); }

  // Waits until the agent has handled all events up to now.
  void Settle();

  // Waits until the host shows exactly the windows that the window manager lists.
  bool ShowsClientList();
  // Errors in what the host knows: it does not show the client list (see above), or a window was reported or removed
  // more than once. Only for one agent and without a reset.
  std::vector<std::string> PictureFaults();

  // Each waits until the host's model fulfils a condition: a predicate, a window with this title, no window with this
  // title, or this many messages.
  bool WaitFor(const host::Model::Predicate& predicate) { return host_.WaitFor(predicate, kSoon); }
  bool Sees(const std::string& title);
  bool NoLongerSees(const std::string& title);
  bool WaitForCount(host::MessageKind kind, std::uint64_t count);

  std::optional<host::Window> FindTitle(const std::string& title);
  // The number of accepted messages of one agent, or of all agents (0).
  std::uint64_t Count(host::MessageKind kind, pid_t agent = 0);
  std::optional<bool> ToolActive() { return host_.model().Snapshot().tool_active; }

 private:
  void StartWindowManager();
  bool IsManaging();
  // Runs on the host's thread, while the agent waits for the answer.
  void OnMessage();

  XServer server_;
  std::string agent_display_;
  std::string window_manager_name_;
  std::unique_ptr<SessionBus> bus_;  // for window managers that need one
  std::unique_ptr<ChildProcess> window_manager_;
  std::unique_ptr<XClient> client_;
  int settled_ = 0;
  std::vector<long> listed_;  // the client list in a session without a window manager
  std::set<pid_t> ready_;     // agents that are ready; used only by the host's thread
  host::Host host_;
  std::vector<std::unique_ptr<IdleProcess>> processes_;
  std::unique_ptr<Agent> agent_;
};

}  // namespace qel::test
