// Starts programs for the host.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "apps/launched_processes.h"

namespace qel {

// How the name of a desktop entry file ends.
inline constexpr std::string_view kDesktopSuffix = ".desktop";

// A started program finds a clean house: a process group of its own, the agent's environment without
// DESKTOP_AUTOSTART_ID, only the descriptors 0, 1 and 2, no blocked signals and every signal at its default.
class Launcher {
 public:
  explicit Launcher(LaunchedProcessTable& launched) : launched_(launched) {}

  // Starts args[0], looked up in PATH as execvp() does, with the arguments `args`, and files the child in the table
  // under `app`. Empty `args` start nothing. Returns as soon as the child exists; a program that cannot be executed is
  // logged by the child, which then exits with status 1. What has no format that the system executes is run by the
  // shell, unless its name is a desktop entry's. Strings end at their first zero byte.
  void LaunchApplication(const std::string& app, const std::vector<std::string>& args);

 private:
  LaunchedProcessTable& launched_;
};

}  // namespace qel
