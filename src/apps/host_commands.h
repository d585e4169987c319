// Fetches the host's commands and executes them.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "apps/host_command_block.h"
#include "apps/launcher.h"
#include "apps/running_app_registry.h"
#include "apps/window_requests.h"
#include "base/stop_flag.h"
#include "tools_gate/guest_commands.h"

namespace qel {

// The functions by which host commands start and signal processes. Tests and fuzzers replace them.
struct ProcessEffects {
  std::function<void(const std::string& app, const std::vector<std::string>& args)> launch;
  std::function<int(pid_t pid, int signal_number)> kill;  // as kill(2)
};

// Commands for windows are queued for the worker thread; programs are started and signalled on the calling thread. No
// state is kept between two commands. All arguments of the constructors must outlive the object.
class HostCommands {
 public:
  HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry, WindowRequestQueue& requests,
               Launcher& launcher);
  HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry, WindowRequestQueue& requests,
               ProcessEffects effects);

  // The thread routine: fetches and executes at most one command per second until RequestStop() is called. When a
  // command causes an exception, it is dropped and an error is logged.
  void HostCommandThread();

  // ClearStop() sets `HostCommandThreadRunning`, which is also its initial state. It must be called before the thread
  // is created. RequestStop() clears the flag and ends the pause between two commands; the thread ends after the
  // current command. Any thread may call both.
  void ClearStop();
  void RequestStop();

  // After HoldBack() a new thread does not fetch commands until Begin() is called. RequestStop() also releases the
  // thread, which then ends at once. So the thread can be created before the agent announces itself to the host. Any
  // thread may call both.
  void HoldBack();
  void Begin();

  // Fetches one command and executes it, without the pause.
  void FetchAndExecute();

  // Executes one command. `block` is the whole reply of the fetch.
  void Execute(std::span<const std::byte> block);

 private:
  void HostCmdReset();
  void HostCmdStartApp(const StartAppCommand& command);
  void HostCmdQuitApp(const QuitAppCommand& command);
  void HostCmdHideApps(const HideAppsCommand& command);
  void HostCmdActivateApps(const ActivateAppsCommand& command);
  void HostCmdActivateWindow(const ActivateWindowCommand& command);

  const GuestCommands& guest_commands_;
  RunningAppRegistry& registry_;
  WindowRequestQueue& requests_;
  ProcessEffects effects_;

  StopFlag stop_;       // set when the thread is to end: not `HostCommandThreadRunning`
  StopFlag may_begin_;  // set but between HoldBack() and Begin()
};

}  // namespace qel
