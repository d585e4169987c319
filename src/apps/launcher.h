// Starts programs for the host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "apps/launched_processes.h"

namespace qel {

// How the name of a desktop entry file ends.
inline constexpr std::string_view kDesktopSuffix = ".desktop";

// A started program has a process group of its own, the agent's environment without DESKTOP_AUTOSTART_ID, only the
// descriptors 0, 1 and 2, no blocked signals, and every signal at its default.
class Launcher {
 public:
  explicit Launcher(LaunchedProcessTable& launched) : launched_(launched) {}

  // Starts args[0] with the arguments `args` and files the child in the table under `app`. Empty `args` start nothing.
  // The program is looked up as execvp() does: along PATH, and run by the shell when the system does not know its
  // format. The shell never runs the path of a desktop entry. Strings end at their first zero byte.
  //
  // Returns as soon as the child exists. A fork that fails is logged here; a program that cannot be executed is logged
  // by the child, which then exits with status 1. Callable from any thread.
  void LaunchApplication(const std::string& app, const std::vector<std::string>& args);

 private:
  LaunchedProcessTable& launched_;
};

}  // namespace qel
