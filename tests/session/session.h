// A whole session around the real program: an X server, a window manager, the host's side of the gate and the agent.
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

// Within this time the agent does what has no promised time, also on a machine that is ten times slower than usual.
inline constexpr std::chrono::seconds kSoon{60};
// Promised times get so much on top: tests run with sanitizers, on machines that are busy.
inline constexpr std::chrono::seconds kSlack{10};
// Sanitizers make the agent slower and look for leaks at its end.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::chrono::milliseconds kSanitizerTime{1500};
#else
inline constexpr std::chrono::milliseconds kSanitizerTime{0};
#endif
// What a stop may take, which is a second and a poll period, or 3.5 s for a worker that waits for somebody else.
inline constexpr std::chrono::milliseconds kStopTime = std::chrono::milliseconds(3500) + kSanitizerTime;

// Those that the agent has been tried with.
inline constexpr const char* kWindowManagers[] = {"metacity", "mutter", "icewm", "openbox", "xfwm4"};

// Lets no test see what another, or a real agent of this machine, does: called by main() before anything else.
// Enters private mount, IPC and network namespaces and puts empty directories over /var/log and that of the X sockets.
// False, with the reason printed, where that is not possible.
bool EnterTestNamespaces();

inline constexpr const char* kLogFile = "/var/log/corvessan.log";
// What this process's agents have written into the log so far.
std::vector<std::string> LogLines();
// How many lines have this text.
int LogCount(const std::string& text);
inline bool LogContains(const std::string& text) {
  return LogCount(text) > 0;
}
bool WaitForLog(const std::string& text, int count = 1);
void ClearLog();

// How many agents own the console, by the semaphore that they share.
int ConsoleOwners();

// Variables to set, or to remove where there is no value.
using EnvironmentChanges = decltype(ChildOptions::environment);

struct Agent : ChildProcess {
  // The test's environment with DISPLAY of its own, without a session bus, and with these changes. The words of
  // `wrapper` come before the program, as of one that runs it.
  Agent(const std::string& display, std::vector<std::string> arguments, EnvironmentChanges environment = {},
        std::vector<std::string> wrapper = {});

  // Fails the test when the process does not end in time and with status 0.
  void ExpectOrderlyEnd();
  // The same after SIGTERM.
  void Stop();
};

// Makes the atoms that a display has once programs of all kinds ran on it, or some of them: the agent serves no display
// without them. The first 15 are those of the session, then come those of the window types.
void MakeSessionAtoms(XClient& client, std::size_t first = 0, std::size_t end = SIZE_MAX);

// Its end stops the agent, if there is one still, and expects that no message broke the format and that no agent told
// the host that it is not ready after it had released the console.
class Session {
 public:
  // A window manager of the list above; empty: none.
  explicit Session(const std::string& window_manager = "openbox");
  ~Session();

  // Ends the X server as a crash would.
  void KillServer();
  // Ends the window manager as a crash would and starts another.
  void RestartWindowManager();

  const XServer& Server() const { return server_; }
  bool HasWindowManager() const { return window_manager_ != nullptr; }
  XClient& Client() { return *client_; }
  host::Host& Host() { return host_; }

  // Where agents find their display from now on, instead of at the server itself.
  void SetAgentDisplay(const std::string& display) { agent_display_ = display; }

  Agent& StartAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  // Starts an agent and waits until its enumeration is finished.
  Agent& StartServingAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  void StopAgent() { agent_->Stop(); }

  // Opens a window, of a process of its own unless one is named, and waits until the window manager manages it. In a
  // session without a window manager it is listed as managed before it is mapped.
  Window Open(WindowTraits traits);
  IdleProcess& NewProcess();
  // Plays the window manager in a session without one: adds the window to the client list.
  void List(Window window);
  // What names the window in messages: that below the root which holds it.
  std::uint32_t Id(Window window) { return static_cast<std::uint32_t>(client_->TopLevel(window)); }

  // Waits until the agent has dealt with every event up to now.
  void Settle();

  // Waits until the windows that the host shows are those that the window manager lists.
  bool ShowsClientList();
  // What is wrong with the host's picture: that it does not become the one above, and windows that were reported or
  // removed more often than once. Of one agent without a reset.
  std::vector<std::string> PictureFaults();

  // The model holds what the predicate asks for, a window of that title, none, or so many messages, in time.
  bool WaitFor(const host::Model::Predicate& predicate) { return host_.WaitFor(predicate, kSoon); }
  bool Sees(const std::string& title);
  bool NoLongerSees(const std::string& title);
  bool WaitForCount(host::MessageKind kind, std::uint64_t count);

  std::optional<host::Window> FindTitle(const std::string& title);
  // How many messages were taken, of an agent if one is named.
  std::uint64_t Count(host::MessageKind kind, pid_t agent = 0);
  std::optional<bool> ToolActive() { return host_.model().Snapshot().tool_active; }

 private:
  void StartWindowManager();
  bool IsManaging();
  // On the host's thread, while the agent waits for the answer.
  void OnMessage();

  XServer server_;
  std::string agent_display_;
  std::string window_manager_name_;
  std::unique_ptr<SessionBus> bus_;  // of the window manager, where that needs one
  std::unique_ptr<ChildProcess> window_manager_;
  std::unique_ptr<XClient> client_;
  int settled_ = 0;
  std::vector<long> listed_;  // in a session without a window manager
  std::set<pid_t> ready_;     // agents, of the host's thread
  host::Host host_;
  std::vector<std::unique_ptr<IdleProcess>> processes_;
  std::unique_ptr<Agent> agent_;
};

}  // namespace qel::test
