// Fetches the host's commands and carries them out.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "apps/host_command_block.h"
#include "apps/launcher.h"
#include "apps/registry.h"
#include "apps/window_requests.h"
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

  // The thread routine: fetches and carries out at most one command per second until RequestStop() is called.
  void HostCommandThread();

  // ClearStop() sets `HostCommandThreadRunning`, to be called before the thread is created; RequestStop() clears it and
  // ends the pause between two commands at once. A fetch under way is waited for. Callable from any thread.
  void ClearStop();
  void RequestStop();

  // One fetch and what follows from it, without the pause.
  void FetchAndExecute();

  // Carries one command out. `block` is everything the fetch returned.
  void Execute(std::span<const std::byte> block);

 private:
  bool IsRunning();
  bool PauseOneSecond();

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

  std::mutex running_lock_;
  std::condition_variable stop_requested_;
  bool host_command_thread_running_ = false;
};

}  // namespace qel
