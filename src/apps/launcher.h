// Starts programs for the host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "apps/launched_processes.h"

namespace qel {

// The suffix of desktop entry files.
inline constexpr std::string_view kDesktopSuffix = ".desktop";

// A started program gets a new process group, the agent's environment without DESKTOP_AUTOSTART_ID, only the
// descriptors 0, 1 and 2, no blocked signals, and default actions for all signals.
class Launcher {
 public:
  explicit Launcher(LaunchedProcessTable& launched) : launched_(launched) {}

  // Starts args[0] with the arguments `args` and files the child in the table under `app`. Empty `args` start nothing.
  // The program is looked up as execvp() does: along PATH, and run by the shell when the system does not know its
  // format. The shell never runs the path of a desktop entry. Strings end at their first zero byte.
  //
  // Returns as soon as the child exists. When fork() fails, an error is logged. When the program cannot be executed,
  // the child logs an error and exits with status 1. Any thread may call it.
  void LaunchApplication(const std::string& app, const std::vector<std::string>& args);

 private:
  LaunchedProcessTable& launched_;
};

}  // namespace qel
