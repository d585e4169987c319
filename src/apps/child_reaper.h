// Reaps the programs that were started for the host, and tells the host about those that have never shown a window.
#pragma once

#include <atomic>

#include "apps/launched_processes.h"
#include "apps/service_thread.h"
#include "tools_gate/guest_commands.h"

namespace qel {

// The SIGCHLD handler only increments an event descriptor, because it must not take a lock that the interrupted thread
// may hold. A thread of the reaper waits in read() and runs OnChildExit() once per signal. Children that end at the
// same time may share one signal, for which one of them is reaped. The others stay zombies until the next child ends,
// and are reaped then.
//
// There must be only one reaper at a time. Install() and the destructor are called from one thread at a time.
class ChildReaper {
 public:
  ChildReaper(const GuestCommands& guest_commands, LaunchedProcessTable& launched)
      : guest_commands_(guest_commands), launched_(launched) {}
  ~ChildReaper();
  ChildReaper(const ChildReaper&) = delete;
  ChildReaper& operator=(const ChildReaper&) = delete;

  // Installs the SIGCHLD handler and starts the thread. May be called again at any time. A failure is logged; then
  // children are not reaped.
  void Install();

 private:
  void ReapThread();
  void OnChildExit();
  bool ReapOne();

  const GuestCommands& guest_commands_;
  LaunchedProcessTable& launched_;
  ServiceThread thread_;
  bool running_ = false;
  std::atomic<bool> stopping_{false};
  bool left_behind_ = false;  // children that have ended were not reaped; used only on the reaper's thread
};

}  // namespace qel
