// Fetches the host's commands and carries them out.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
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

// What host commands do to processes. Tests and fuzzers put their own in place.
struct ProcessEffects {
  std::function<void(const std::string& app, const std::vector<std::string>& args)> launch;
  std::function<int(pid_t pid, int signal_number)> kill;  // as kill(2)
};

// Commands that touch windows are queued for the worker thread; programs are started and signalled from here. No state
// is kept between two commands.
class HostCommands {
 public:
  HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry, WindowRequestQueue& requests,
               Launcher& launcher);
  HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry, WindowRequestQueue& requests,
               ProcessEffects effects);

  // The thread routine: fetches and carries out at most one command per second until RequestStop() is called. A command
  // that meets an exception is dropped with an error line.
  void HostCommandThread();

  // ClearStop() sets `HostCommandThreadRunning`, as it is at first; to be called before the thread is created.
  // RequestStop() clears it and ends the pause between two commands at once; the thread ends after the fetch under way.
  // Once RequestStop() has returned no reset says "ready" to the host any more: it waits for one that is under way.
  // Callable from any thread.
  void ClearStop();
  void RequestStop();

  // A thread that is created after HoldBack() fetches nothing before Begin(), and ends at once when RequestStop() comes
  // first, which also ends the holding back. So it can be created before the host is told of the agent.
  void HoldBack();
  void Begin();

  // One fetch and what follows from it, without the pause.
  void FetchAndExecute();

  // Carries one command out. `block` is everything the fetch returned.
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

  StopFlag stop_;          // set when the thread is to end: not `HostCommandThreadRunning`
  StopFlag may_begin_;     // set but between HoldBack() and Begin()
  std::mutex reset_lock_;  // held while a reset is carried out; taken before RegistryLock
};

}  // namespace qel
