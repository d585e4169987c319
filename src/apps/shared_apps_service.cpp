#include "apps/shared_apps_service.h"

#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>
#include <variant>

#include "appmenu/applications_menu.h"
#include "apps/bamf.h"
#include "apps/menu_message.h"
#include "apps/window_actions.h"
#include "base/overloaded.h"
#include "desktop/desktop_kind.h"
#include "log/log.h"
#include "tools_gate/resubmission.h"
#include "tools_service/x_library.h"

namespace qel {

SharedAppsService::SharedAppsService(const GuestCommands& guest_commands, const State& state, bool (*device_is_open)(),
                                     bool (*is_running)())
    : guest_commands_(guest_commands),
      requests_(state.requests),
      entries_(state.entries),
      icon_themes_(state.icon_themes),
      icons_(state.icon_themes),
      device_is_open_(device_is_open),
      is_running_(is_running),
      tracker_(session_, guest_commands, state.registry, state.launched, state.entries, icons_),
      child_reaper_(guest_commands, state.launched),
      launcher_(state.launched),
      host_commands_(guest_commands, state.registry, state.requests, launcher_),
      local_socket_(state.registry) {
  descriptor_.name = "Tandrel";
  descriptor_.init = [this](ServiceContext& context) { return SharedAppsInit(context); };
  descriptor_.poll = [this](ServiceContext& context) { SharedAppsPoll(context); };
  descriptor_.stop = [this](ServiceContext& context) { return SharedAppsStop(context); };
  descriptor_.event = [this](ServiceContext& context, void* event) { SharedAppsEvent(context, event); };
  descriptor_.work = [this](ServiceContext& context) { return SharedAppsWork(context); };
}

// The threads may still run here, when the connection was lost during the initialisation of the service.
SharedAppsService::~SharedAppsService() {
  StopHostCommandThread();
  StopSocketThread();
}

bool SharedAppsService::SharedAppsInit(ServiceContext& context) {
  descriptor_.may_succeed_later = false;
  if (context.connection_type != kConnectionX11) {
    return false;
  }
  if (context.control_extension_opcode == 0 || !device_is_open_()) {
    LogError(kModuleAgent, "Error: Can't initialize");
    return false;
  }
  descriptor_.may_succeed_later = true;
  session_.display = static_cast<Display*>(context.display);
  session_.root = XDefaultRoot(session_.display);
  if (!FindAtoms()) {
    return false;  // tried again later: programs of the session may create the missing atoms
  }
  // Created before any message is sent, because an agent that cannot receive commands must not announce itself. It does
  // not fetch before Begin().
  if (!StartHostCommandThread()) {
    return false;
  }
  const DesktopKind desktop = DetectDesktopKind(session_.display);

  icon_themes_.DiscoverIconThemes(desktop);
  child_reaper_.Install();
  TgLimitResubmissionWhileStopping(false);
  guest_commands_.GuestCmdToolState(true);
  SendMenu(desktop);
  host_commands_.Begin();
  tracker_.Resume();
  if (!StartSocketThread()) {
    LogWarning(kModuleAgent, "Warning: Can't start socket thread");
    return true;
  }
  LogInfo(kModuleAgent, "initialized");
  return true;
}

// Runs on a thread of its own and waits for it: loading a menu needs megabytes in small blocks, stack, and memory for a
// large message, and the end of the thread returns this memory to the system. If there is not enough memory, no menu is
// sent, but the windows are served.
void SharedAppsService::SendMenu(DesktopKind desktop) {
  const auto send = [this, desktop] {
    try {
      const MenuEntries menu = LoadApplicationsMenu(entries_, desktop, {.may_go_on = is_running_});
      if (is_running_()) {
        SendApplicationsMenu(guest_commands_, entries_, icons_, menu);
      }
    } catch (const std::exception& error) {
      LogError(kModuleAgent, "Error: Applications menu dropped: %s", error.what());
    }
  };
  ServiceThread thread;
  if (thread.Start("tdl.menu", send) != 0) {
    send();
  }
}

// Logs the missing atoms, unless the same atoms were missing at the last try.
bool SharedAppsService::FindAtoms() {
  std::vector<std::string> missing = InternSessionAtoms(session_);
  if (missing.empty()) {
    missing = InternWindowTypes(session_);
  }
  if (missing != missing_atoms_) {
    for (const std::string& name : missing) {
      LogError(kModuleAgent, "Error: Can't initialize atom %s", name.c_str());
    }
    missing_atoms_ = missing;
  }
  return missing.empty();
}

bool SharedAppsService::StartHostCommandThread() {
  StopHostCommandThread();  // there is one if an earlier initialisation has failed after this step
  host_commands_.ClearStop();
  host_commands_.HoldBack();
  const int error = host_command_thread_.Start("tdl.hostcmd", [this] { host_commands_.HostCommandThread(); });
  if (error != 0 && error != host_command_thread_error_) {
    LogError(kModuleAgent, "Error: Failed to create thread: %s", std::strerror(error));
    LogError(kModuleAgent, "Error: Can't start thread for recieving host commands");
  }
  host_command_thread_error_ = error;
  return error == 0;
}

void SharedAppsService::StopHostCommandThread() {
  host_commands_.RequestStop();
  host_command_thread_.Join();
}

bool SharedAppsService::StartSocketThread() {
  StopSocketThread();
  local_socket_.ClearStop();
  const int error = socket_thread_.Start("tdl.sock", [this] { local_socket_.LocalSocketThread(); });
  if (error != 0) {
    LogError(kModuleAgent, "Error: Failed to create thread: %s", std::strerror(error));
    local_socket_.Stop();
  }
  return error == 0;
}

void SharedAppsService::StopSocketThread() {
  local_socket_.Stop();
  socket_thread_.Join();
}

void SharedAppsService::SharedAppsPoll(ServiceContext& context) {
  if (context.connection_type != kConnectionX11) {
    return;
  }
  BamfHandleSignals();
  // For one period at most. The remaining requests, and those that were queued meanwhile, are executed at the next
  // poll.
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ToolsServiceGetPollPeriod());
  for (std::size_t left = requests_.Size(); left > 0 && is_running_(); --left) {
    if (const std::optional<WindowRequest> request = requests_.TakeFirst()) {
      Execute(*request);
    }
    if (std::chrono::steady_clock::now() > end) {
      break;
    }
  }
  tracker_.BeginPeriod();
}

void SharedAppsService::Execute(const WindowRequest& request) {
  std::visit(Overloaded{[this](const ActivateRequest& activate) { ActivateWindow(session_, activate.window); },
                        [this](const MinimizeRequest& minimize) { MinimizeWindow(session_, minimize.window); },
                        [this](const CloseRequest& close) { CloseWindows(session_, close.windows); },
                        [this](const ReenumerateRequest&) { tracker_.EnumerateWindows(); }},
             request);
}

bool SharedAppsService::SharedAppsStop(ServiceContext& context) {
  if (context.connection_type != kConnectionX11) {
    return false;
  }
  TgLimitResubmissionWhileStopping(true);
  StopHostCommandThread();  // first, so that no reset can send "ready" after the last message, "not ready"
  guest_commands_.GuestCmdToolState(false);
  StopSocketThread();
  LogInfo(kModuleAgent, "deinitialized");
  return true;
}

void SharedAppsService::SharedAppsEvent(ServiceContext& context, void* event) {
  if (context.connection_type != kConnectionX11) {
    return;
  }
  tracker_.HandleWindowEvent(*static_cast<const XEvent*>(event));
}

bool SharedAppsService::SharedAppsWork(ServiceContext& context) {
  return context.connection_type == kConnectionX11 && tracker_.Work(context.has_backlog);
}

}  // namespace qel
