#include "apps/host_commands.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <variant>

#include "apps/exec_arguments.h"
#include "base/overloaded.h"
#include "base/owner.h"
#include "files/key_file.h"
#include "log/log.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/shared_folders.h"

namespace qel {
namespace {

constexpr std::size_t kFetchBufferSize = 4096;
constexpr std::uint32_t kFetchFlags = 0x80000008;
constexpr std::uint32_t kFetchLargeFlags = 0x80000000;

// In bytes. The largest commands contain a list of documents, and the arguments of a program are limited to about two
// megabytes. A larger size must be wrong and would only use up memory: it is treated like a failed allocation.
constexpr std::uint32_t kLargestCommand = 16 * 1024 * 1024;

constexpr std::size_t kResolvedPathSize = 4096;

std::array<std::byte, kGuestCommandHeaderSize> FetchRequest(std::uint32_t flags) {
  std::array<std::byte, kGuestCommandHeaderSize> request{};
  StoreU32(request.data() + 4, kGuestCommandVersion);
  StoreU32(request.data() + 12, flags);
  return request;
}

// Converts a shared-folder path of the host to a path in the guest. When that fails, calls `log_failure` and returns
// the path unchanged.
template <typename LogFailure>
std::string ResolvedPath(const std::string& path, LogFailure log_failure) {
  std::array<char, kResolvedPathSize> resolved{};
  if (ResolveSharedFolderPath(resolved, path.c_str()) == SharedFolderStatus::kResolved) {
    return resolved.data();
  }
  log_failure(path.c_str());
  return path;
}

// The Exec line of a desktop entry file; empty when there is none.
std::string ExecLine(const std::string& path) {
  KeyFileValues values{{"Desktop Entry", {{"Exec", ""}}}};
  ReadKeyFile(path, values);
  return values["Desktop Entry"]["Exec"];
}

// The program for `app` and its arguments; empty when there is none.
std::vector<std::string> Arguments(const std::string& app, const std::string& document) {
  if (access(app.c_str(), X_OK) == 0 && !app.ends_with(kDesktopSuffix)) {
    return {app};
  }
  const std::string exec = ExecLine(app);
  return exec.empty() ? std::vector{app} : ExecArguments(exec, document);
}

// Calls `visit` with the windows of each registered process in the list, in list order. Each process is visited only
// once, because a list may contain the same process a million times.
template <typename Visit>
void ForEachNamedApp(const RunningAppRegistry::Map& registry, const std::vector<std::int32_t>& pids, Visit visit) {
  std::set<std::int32_t> visited;
  for (const std::int32_t pid : pids) {
    const auto app = registry.find(pid);
    if (app != registry.end() && visited.insert(pid).second) {
      visit(app->second);
    }
  }
}

// kill() also accepts the id of any thread of a process, so comparing with getpid() is not enough.
bool IsOfThisProcess(pid_t pid) {
  return syscall(SYS_tgkill, getpid(), pid, 0) == 0;
}

}  // namespace

HostCommands::HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry,
                           WindowRequestQueue& requests, Launcher& launcher)
    : HostCommands(
          guest_commands, registry, requests,
          {.launch = [&launcher](const std::string& app,
                                 const std::vector<std::string>& args) { launcher.LaunchApplication(app, args); },
           .kill = ::kill}) {}

HostCommands::HostCommands(const GuestCommands& guest_commands, RunningAppRegistry& registry,
                           WindowRequestQueue& requests, ProcessEffects effects)
    : guest_commands_(guest_commands), registry_(registry), requests_(requests), effects_(std::move(effects)) {
  Begin();
}

void HostCommands::ClearStop() {
  stop_.Clear();
}

void HostCommands::RequestStop() {
  stop_.Set();
  Begin();
}

void HostCommands::HoldBack() {
  may_begin_.Clear();
}

void HostCommands::Begin() {
  may_begin_.Set();
}

void HostCommands::HostCommandThread() {
  may_begin_.Wait();
  for (bool stopped = stop_.IsSet(); !stopped; stopped = stop_.WaitFor(std::chrono::seconds(1))) {
    try {
      FetchAndExecute();
    } catch (const std::exception& error) {
      LogError(kModuleAgent, "Error: Host command dropped: %s", error.what());
    }
  }
}

void HostCommands::FetchAndExecute() {
  std::array<std::byte, kFetchBufferSize> small{};
  if (!guest_commands_.GuestCmdSend(FetchRequest(kFetchFlags), small)) {
    LogError(kModuleAgent, "Error: Host command TG request failed");
    return;
  }
  const std::optional<std::uint32_t> large_size = LargeHostCommandSize(small);
  if (!large_size) {
    Execute(small);
    return;
  }
  const std::uint32_t size = *large_size;
  Owner<std::byte, std::free> large;
  if (size >= kHostCommandHeaderSize) {
    if (size <= kLargestCommand) {
      large.reset(static_cast<std::byte*>(std::calloc(size, 1)));
    }
    if (large == nullptr) {
      LogError(kModuleAgent, "Error: malloc() err, sz=%u", size);
    }
  }
  const std::span block(large.get(), large != nullptr ? size : 0);
  if (block.empty() || !guest_commands_.GuestCmdSend(FetchRequest(kFetchLargeFlags), block)) {
    LogError(kModuleAgent, "Error: Failed to fetch host command");
    return;
  }
  Execute(block);
}

void HostCommands::Execute(std::span<const std::byte> block) {
  const std::optional<HostCommand> command = DecodeHostCommand(block);
  if (!command) {
    return;
  }
  std::visit(Overloaded{[this](const ResetCommand&) { HostCmdReset(); },
                        [this](const StartAppCommand& start) { HostCmdStartApp(start); },
                        [this](const QuitAppCommand& quit) { HostCmdQuitApp(quit); },
                        [this](const HideAppsCommand& hide) { HostCmdHideApps(hide); },
                        [this](const ActivateAppsCommand& activate) { HostCmdActivateApps(activate); },
                        [this](const ActivateWindowCommand& activate) { HostCmdActivateWindow(activate); }},
             *command);
}

void HostCommands::HostCmdReset() {
  // A service that stops tells nothing more. The host gets everything again when the service starts again.
  const bool serves = !stop_.IsSet();
  if (serves) {
    guest_commands_.GuestCmdToolState(true);
  }
  registry_.ClearRegistry();
  if (serves) {
    requests_.QueueWindowRequest(ReenumerateRequest{});
  }
}

void HostCommands::HostCmdStartApp(const StartAppCommand& command) {
  std::string document;
  if (command.document) {
    document = ResolvedPath(*command.document, [](const char* path) {
      LogError(kModuleAgent, "Error: Failed to resolve path '%s'", path);
    });
  }
  std::vector<std::string> documents;
  for (const std::string& listed : command.documents) {
    documents.push_back(ResolvedPath(
        listed, [](const char* path) { LogError(kModuleAgent, "Error: Failed to resolve doc path '%s'", path); }));
  }
  std::vector<std::string> args = Arguments(command.app, document);
  if (args.empty()) {
    LogError(kModuleAgent, "Error: Exec line of '%s' names no program", command.app.c_str());
    return;
  }
  args.insert(args.end(), documents.begin(), documents.end());
  effects_.launch(command.app, args);
}

void HostCommands::HostCmdQuitApp(const QuitAppCommand& command) {
  if (command.pid <= 0) {
    // kill() would signal a process group, or all processes.
    LogError(kModuleAgent, "Error: QuitApp: pid=%d names no process.", command.pid);
    return;
  }
  if (command.force && IsOfThisProcess(command.pid)) {
    // A window may claim to belong to this process.
    LogError(kModuleAgent, "Error: QuitApp: pid=%d is this agent.", command.pid);
    return;
  }
  {
    const RunningAppRegistry::Locked registry = registry_.Lock();
    const auto app = registry->find(command.pid);
    if (app == registry->end()) {
      LogError(kModuleAgent, "Error: QuitApp: pid=%d not registered as shared app.", command.pid);
    } else if (!command.force) {
      requests_.QueueWindowRequest(CloseRequest{app->second});
      return;
    }
  }
  if (effects_.kill(command.pid, command.force ? SIGKILL : SIGTERM) != 0) {
    LogWarning(kModuleAgent, "Warning: QuitApp: pid=%d not signalled: %s", command.pid, std::strerror(errno));
  }
}

void HostCommands::HostCmdHideApps(const HideAppsCommand& command) {
  std::vector<WindowId> excluded = command.excluded_clients;
  std::ranges::sort(excluded);
  WindowPairSet hidden;
  {
    const RunningAppRegistry::Locked registry = registry_.Lock();
    ForEachNamedApp(*registry, command.pids, [&](const WindowPairSet& windows) {
      for (const WindowPair& window : windows) {
        if (!std::ranges::binary_search(excluded, window.client)) {
          hidden.insert(window);
          requests_.QueueWindowRequest(MinimizeRequest{window.toplevel});
        }
      }
    });
  }
  if (hidden.empty()) {
    return;
  }
  std::vector<WindowId> toplevels;
  for (const WindowPair& window : hidden) {
    toplevels.push_back(window.toplevel);
  }
  guest_commands_.GuestCmdHiddenWindows(command.context_a, command.context_b, toplevels);
}

void HostCommands::HostCmdActivateApps(const ActivateAppsCommand& command) {
  const RunningAppRegistry::Locked registry = registry_.Lock();
  ForEachNamedApp(*registry, command.pids, [this](const WindowPairSet& windows) {
    for (const WindowPair& window : windows) {
      requests_.QueueWindowRequest(ActivateRequest{window.toplevel});
    }
  });
}

void HostCommands::HostCmdActivateWindow(const ActivateWindowCommand& command) {
  if (command.window != 0) {
    requests_.QueueWindowRequest(ActivateRequest{command.window});
  }
}

}  // namespace qel
