// The shared-applications service. It runs while the agent owns the graphical console of an X11 session.
//
// The callbacks run on the worker thread of the Tools Service, the only thread that uses the X connection. When an X
// call finds the connection lost, it does not return: SharedAppsStop() is called from inside of it, and the thread
// ends. So no lock may be held during an X call. The service has three more threads: for host commands, for clients of
// the local socket, and for reaping children. The third one also runs while another agent owns the console.
#pragma once

#include <string>
#include <vector>

#include "appmenu/desktop_entries.h"
#include "apps/child_reaper.h"
#include "apps/host_commands.h"
#include "apps/launched_processes.h"
#include "apps/launcher.h"
#include "apps/local_socket.h"
#include "apps/running_app_registry.h"
#include "apps/service_thread.h"
#include "apps/session.h"
#include "apps/window_requests.h"
#include "apps/window_tracker.h"
#include "desktop/desktop_kind.h"
#include "icons/icon_lookup.h"
#include "icons/icon_themes.h"
#include "tools_gate/device.h"
#include "tools_gate/guest_commands.h"
#include "tools_service/service_types.h"
#include "tools_service/tools_service.h"

namespace qel {

class SharedAppsService {
 public:
  // The data of the service. The caller owns them, and they must outlive the service. They are kept when the console is
  // lost and owned again.
  struct State {
    RunningAppRegistry& registry;
    WindowRequestQueue& requests;
    LaunchedProcessTable& launched;
    DesktopEntryRegistry& entries;
    IconThemes& icon_themes;
  };

  // `device_is_open` returns whether the host can be reached, `is_running` false after a stop request.
  SharedAppsService(const GuestCommands& guest_commands, const State& state,
                    bool (*device_is_open)() = TgDeviceHandleIsOpen, bool (*is_running)() = ToolsServiceIsRunning);
  ~SharedAppsService();
  SharedAppsService(const SharedAppsService&) = delete;
  SharedAppsService& operator=(const SharedAppsService&) = delete;

  // The descriptor for ToolsServiceAddService(); valid as long as this object.
  ServiceDescriptor& Descriptor() { return descriptor_; }

  // The callbacks of the descriptor. If the connection is not an X11 connection, they do nothing and return false.
  // SharedAppsStop() may be called twice in a row.
  bool SharedAppsInit(ServiceContext& context);
  void SharedAppsPoll(ServiceContext& context);
  bool SharedAppsStop(ServiceContext& context);
  void SharedAppsEvent(ServiceContext& context, void* event);
  bool SharedAppsWork(ServiceContext& context);

 private:
  bool FindAtoms();
  void SendMenu(DesktopKind desktop);
  bool StartHostCommandThread();
  void StopHostCommandThread();
  bool StartSocketThread();
  void StopSocketThread();

  void Execute(const WindowRequest& request);

  const GuestCommands& guest_commands_;
  WindowRequestQueue& requests_;
  DesktopEntryRegistry& entries_;
  IconThemes& icon_themes_;
  IconFinder icons_;
  bool (*device_is_open_)();
  bool (*is_running_)();
  Session session_;
  std::vector<std::string> missing_atoms_;  // at the last try
  int host_command_thread_error_ = 0;       // at the last try
  WindowTracker tracker_;
  ChildReaper child_reaper_;
  Launcher launcher_;
  HostCommands host_commands_;
  LocalSocket local_socket_;
  ServiceThread host_command_thread_;
  ServiceThread socket_thread_;
  ServiceDescriptor descriptor_;
};

}  // namespace qel
