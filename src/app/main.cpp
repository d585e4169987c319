// The program: initialises everything on the main thread, runs the Tools Service until it is asked to stop, and
// releases everything in reverse order.

#include <malloc.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <exception>

#include "app/options.h"
#include "app/standard_descriptors.h"
#include "appmenu/desktop_entries.h"
#include "apps/bamf.h"
#include "apps/launched_processes.h"
#include "apps/running_app_registry.h"
#include "apps/shared_apps_service.h"
#include "apps/window_requests.h"
#include "base/respondent.h"
#include "desktop/glib_api.h"
#include "icons/icon_themes.h"
#include "log/log.h"
#include "tools_gate/guest_commands.h"
#include "tools_gate/link.h"
#include "tools_gate/product_version.h"
#include "tools_gate/resubmission.h"
#include "tools_service/tools_service.h"

namespace qel {
namespace {

constexpr const char* kServiceName = "corvessan.Tandrel.guest.lin";
constexpr const char* kServiceTitle = "Corvessan Tandrel Tool";

// All agents of a machine must get the same semaphore key. So it is always made from this path, also by an agent that
// is not installed there.
constexpr const char* kSemaphorePath = "/usr/bin/qeltdl";
constexpr int kSemaphoreProject = 1234;

// All groups of the GLib family except GTK (0x80) and GDK (0x100).
constexpr std::uint32_t kGLibGroups = 0xFFFFFE7F;

// Messages with icons are large and rare, so large blocks are returned to the system when they are freed. One arena is
// enough for the few threads.
void KeepMemorySmall() {
  constexpr int kLargeBlock = 512 * 1024;
  mallopt(M_MMAP_THRESHOLD, kLargeBlock);
  mallopt(M_TRIM_THRESHOLD, kLargeBlock);
  mallopt(M_ARENA_MAX, 1);
}

// The usual 8 MiB for each stack, also of GLib's threads, would be most of the address space where that is limited:
// GLib aborts the process when it cannot create a thread.
void KeepStacksSmall() {
  constexpr std::size_t kStackSize = std::size_t{1} << 20;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) == 0) {
    pthread_attr_setstacksize(&attributes, kStackSize);
    pthread_setattr_default_np(&attributes);
    pthread_attr_destroy(&attributes);
  }
}

// The parent process may have blocked these signals; the mask is inherited.
void UnblockHandledSignals() {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
    sigaddset(&handled, signal_number);
  }
  pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
}

void OnStopSignal(int) {
  const int saved_errno = errno;
  {
    const SignalHandlerScope scope;
    TgLimitResubmission();  // ToolsServiceStop() does this only when a service exists, not yet while the link is opened
    ToolsServiceStop();
    LogInfo(kModuleAgent, "Closing . . .");
  }
  errno = saved_errno;
}

// The link to the host. While it is open, the agent's service is registered with the host.
class HostLink {
 public:
  bool Open() {
    const int result = TgLinkOpen(link_);
    if (result != 0) {
      LogError(kModuleAgent, "Error: Could not open link to Open Tools Gate: %d", result);
      return false;
    }
    LogInfo(kModuleAgent, "Open Tools Gate link was opened.");
    open_ = true;
    // The result is ignored: a host that rejects the registration still gets the notifications.
    TgRegisterService(link_, kServiceName, kServiceTitle, 1, 0, nullptr, {});
    return true;
  }

  void Close() {
    if (open_) {
      TgUnregisterService(link_, kServiceName);
      open_ = false;
      TgLinkClose(link_);
      LogInfo(kModuleAgent, "Open Tools Gate link was closed.");
    }
  }

 private:
  TgLink link_;
  bool open_ = false;
};

// Runs the shared-applications service until the worker ends. The service and its threads end before this function
// returns, while the gate's device is still open. When the worker hangs, the process ends here.
void Serve(std::uint32_t period_ms, HostLink& link) {
  const GuestCommands guest_commands;
  RunningAppRegistry registry;
  WindowRequestQueue requests;
  LaunchedProcessTable launched;
  DesktopEntryRegistry entries;
  IconThemes icon_themes;
  SharedAppsService shared_apps(guest_commands, {registry, requests, launched, entries, icon_themes});
  if (ToolsServiceInit(ftok(kSemaphorePath, kSemaphoreProject), kConnectionX11, false)) {
    ToolsServiceAddService(&shared_apps.Descriptor());
    ToolsServiceRun(period_ms);
    if (ToolsServiceLeaveStuckWorker()) {
      link.Close();
      LogInfo(kModuleAgent, "closed");
      _exit(0);
    }
  }
}

// Runs one part of the program. An exception (out of memory, for example) ends this part only: the cleanup still runs,
// and the exit status stays 0.
template <typename Part>
void Run(Part part) {
  try {
    part();
  } catch (const std::exception& error) {
    LogError(kModuleAgent, "Error: %s", error.what());
  }
}

int Main(int argc, char** argv) {
  OpenMissingStandardDescriptors();
  KeepMemorySmall();
  KeepStacksSmall();
  SetLogLevel(kLogInfo);
  LogInfo(kModuleAgent, "Start Corvessan tandrel tool. Corvessan Tools version is %s", kProductVersion);
  const Options options = ParseCommandLine(argc, argv);
  if (options.help) {
    return 0;
  }
  LogInfo(kModuleAgent, "starting . . .");
  for (const int signal_number : {SIGTERM, SIGINT, SIGHUP}) {
    std::signal(signal_number, OnStopSignal);
  }
  UnblockHandledSignals();
  // A write to a closed connection must return an error, not end this process.
  std::signal(SIGPIPE, SIG_IGN);

  HostLink link;
  Run([&] {
    if (link.Open()) {
      GLibApiInit(kGLibGroups);
      BamfLoad();
      Serve(static_cast<std::uint32_t>(options.poll_period_ms), link);
    }
  });
  TgLimitResubmission();  // the process is ending, perhaps without a signal; the host must not delay that
  Run([&] {
    ToolsServiceDeinit();
    BamfUnload();
    GLibApiDeinit();
    link.Close();
  });
  LogInfo(kModuleAgent, "closed");
  if (IsAnyQuestionOpen()) {
    _exit(0);  // a detached thread may still use libraries, so their exit handlers must not run
  }
  return 0;
}

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
  return qel::Main(argc, argv);
}
