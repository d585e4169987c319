// A whole session around the real program: an X server, a window manager, the host's side of the gate and the agent.
#pragma once

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

// Times within which the agent has to have done something; generous, as the tests also run under sanitizers.
inline constexpr std::chrono::seconds kSoon{15};
// What a stop may take: about a second, a poll period, and the sanitizers' report.
inline constexpr std::chrono::seconds kStopTime{5};
// The default period, and what is granted beyond promised times: tests run with sanitizers, on machines that are busy.
inline constexpr std::chrono::milliseconds kPeriod{500};
#ifdef __SANITIZE_THREAD__
inline constexpr std::chrono::milliseconds kSlack{4000};
#else
inline constexpr std::chrono::milliseconds kSlack{1000};
#endif

// Those that the agent has been tried with.
inline constexpr const char* kWindowManagers[] = {"metacity", "mutter", "icewm", "openbox", "xfwm4"};

// Lets no test see what another, or a real agent of this machine, does: called by main() before anything else.
// Enters private mount, IPC and network namespaces and puts empty directories over /var/log and that of the X sockets.
// False, with the reason printed, where that is not possible.
bool EnterTestNamespaces();

// What this process's agents have written into the log so far.
std::vector<std::string> LogLines();
bool LogContains(const std::string& text);
int LogCount(const std::string& text);
void ClearLog();

// Variables to set, or to remove where there is no value.
using EnvironmentChanges = decltype(ChildOptions::environment);

class Agent {
 public:
  // The test's environment with DISPLAY of its own, without a session bus, and with these changes.
  Agent(const std::string& display, std::vector<std::string> arguments, EnvironmentChanges environment = {});

  pid_t Pid() const { return process_.Pid(); }
  void Signal(int signal_number) { process_.Kill(signal_number); }
  // How the process ended; fails the test when it does not end in time or not with status 0.
  void ExpectOrderlyEnd(std::chrono::milliseconds timeout = kStopTime);
  std::optional<ChildStatus> Wait(std::chrono::milliseconds timeout) { return process_.Wait(timeout); }

 private:
  ChildProcess process_;
};

// Which atoms the X server knows when the agent starts.
enum class SessionAtoms {
  kComplete,         // as after a while with programs of all kinds
  kOfWindowManager,  // those that the window manager itself makes, and no other
};

class Session {
 public:
  // A window manager of the list above; empty: none.
  explicit Session(const std::string& window_manager = "openbox", SessionAtoms atoms = SessionAtoms::kComplete);
  ~Session();

  // Ends the X server as a crash would.
  void KillServer();
  // Ends the window manager as a crash would and starts another.
  void RestartWindowManager();

  const XServer& Server() const { return server_; }
  XClient& Client() { return *client_; }
  host::Host& Host() { return host_; }

  // Where agents find their display from now on, instead of at the server itself.
  void SetAgentDisplay(const std::string& display) { agent_display_ = display; }
  // Makes the atoms that SessionAtoms::kOfWindowManager left out.
  void CompleteAtoms();

  Agent& StartAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  // Starts an agent and waits until it has told everything there is.
  Agent& StartServingAgent(std::vector<std::string> arguments = {"-r", "100"}, EnvironmentChanges environment = {});
  // Ends the agent by SIGTERM and expects an orderly end.
  void StopAgent();

  // Opens a window, of a process of its own unless one is named, and waits until the window manager manages it. In a
  // session without a window manager it is listed as managed before it is mapped.
  Window Open(WindowTraits traits);
  IdleProcess& NewProcess();
  // Plays the window manager in a session without one: adds the window to the client list.
  void List(Window window);

  // Waits until the agent has dealt with every event up to now.
  void Settle();

  // Waits until the windows that the host shows are those that the window manager lists.
  bool ShowsClientList(std::chrono::milliseconds timeout = kSoon);
  // What is wrong with the host's picture now: windows listed and not shown, shown and not listed, and those that were
  // reported or removed more often than once. Of one agent without a reset.
  std::vector<std::string> PictureFaults();

  // The model holds a window of that title / of no such title, in time.
  bool Sees(const std::string& title);
  bool NoLongerSees(const std::string& title);
  std::optional<host::Window> FindTitle(const std::string& title);
  std::uint64_t Count(host::MessageKind kind);
  bool WaitForCount(host::MessageKind kind, std::uint64_t count);

  // No message of this session broke the format.
  void ExpectNoViolations();

 private:
  void StartWindowManager();
  bool ManagesWindows();
  bool AnnouncesItself();
  // The windows below the root that hold those of the client list.
  std::set<std::uint32_t> ListedTops();
  std::set<std::uint32_t> ShownWindows();

  XServer server_;
  std::string agent_display_;
  std::string window_manager_name_;
  SessionAtoms atoms_;
  std::unique_ptr<SessionBus> bus_;  // of the window manager, where that needs one
  std::unique_ptr<ChildProcess> window_manager_;
  std::unique_ptr<XClient> client_;
  int settled_ = 0;
  std::vector<Window> listed_;  // in a session without a window manager
  host::Host host_;
  std::vector<std::unique_ptr<IdleProcess>> processes_;
  std::unique_ptr<Agent> agent_;
};

}  // namespace qel::test
