#include "apps/bamf.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "appmenu/paths.h"
#include "base/respondent.h"
#include "desktop/glib_api.h"
#include "log/log.h"

namespace qel {
namespace {

// The library's objects are untyped: its headers are not used.
struct BamfFunctions {
  void* (*bamf_matcher_get_default)();
  void* (*bamf_matcher_get_application_for_xid)(void* matcher, std::uint32_t window);
  const char* (*bamf_application_get_desktop_file)(void* application);  // the text stays the library's
  int (*g_main_context_iteration)(void* context, int may_block);        // of the GLib that the library brings along
};

void* library = nullptr;
BamfFunctions bamf;

// A daemon that cannot be started costs 25 seconds with every question, and the thread that waits serves the windows
// and the host's requests. Starting a healthy one takes a fraction of a second.
constexpr std::chrono::seconds kPatience{2};
std::optional<Respondent> matcher_daemon;  // while the library is loaded

// Without GObject's functions the matcher is not released.
struct ReleaseMatcher {
  bool has_gobject;
  void operator()(void* matcher) const {
    if (has_gobject) {
      glib::g_object_unref(matcher);
    }
  }
};

// GDBus leaves what it hears, for every window some kilobytes, to the default main context, which nobody else runs. The
// loop is bounded, for what is done there may bring more.
void RunMainContext() {
  constexpr int kMostEvents = 10'000;
  if (bamf.g_main_context_iteration == nullptr) {
    return;
  }
  for (int i = 0; i < kMostEvents && bamf.g_main_context_iteration(nullptr, 0) != 0; ++i) {
  }
}

template <typename Function>
bool Resolve(Function& entry, const char* name) {
  dlerror();  // forgets errors of earlier calls
  entry = reinterpret_cast<Function>(dlsym(library, name));
  const char* const error = dlerror();
  if (error != nullptr) {
    LogError(kModuleAgent, "Error: Failed to load symbol '%s': %s", name, error);
  }
  return error == nullptr;
}

std::string AskMatcher(Window window, bool has_gobject) {
  const std::unique_ptr<void, ReleaseMatcher> matcher(bamf.bamf_matcher_get_default(), {has_gobject});
  if (matcher == nullptr) {
    LogError(kModuleAgent, "Error: Failed to create bamf matcher");
    return {};
  }
  void* const application =
      bamf.bamf_matcher_get_application_for_xid(matcher.get(), static_cast<std::uint32_t>(window));
  if (application == nullptr) {
    LogInfo(kModuleAgent, "Failed to retrieve bamf application for xid '%lx'", window);
    return {};
  }
  const char* const path = bamf.bamf_application_get_desktop_file(application);
  if (path == nullptr) {
    LogInfo(kModuleAgent, "Unable to find desktop file for xid  '%lx'", window);
    return {};
  }
  if (*path == '\0') {
    return {};
  }
  std::string name = BaseNameNoExt(path);
  LogInfo(kModuleAgent, "bamf found application name: '%s' for xid '%lx'", name.c_str(), window);
  return name;
}

}  // namespace

void BamfLoad() {
  LogInfo(kModuleAgent, "Loading libbamf symbols");
  library = dlopen("libbamf3.so.2", RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    LogWarning(kModuleAgent, "Warning: Failed to load libbamf");
    return;
  }
  if (!Resolve(bamf.bamf_matcher_get_default, "bamf_matcher_get_default") ||
      !Resolve(bamf.bamf_matcher_get_application_for_xid, "bamf_matcher_get_application_for_xid") ||
      !Resolve(bamf.bamf_application_get_desktop_file, "bamf_application_get_desktop_file")) {
    BamfUnload();
    return;
  }
  bamf.g_main_context_iteration = reinterpret_cast<int (*)(void*, int)>(dlsym(library, "g_main_context_iteration"));
  matcher_daemon.emplace("bamf");
  LogInfo(kModuleAgent, "libbamf loaded successfully");
}

void BamfUnload() {
  if (library == nullptr) {
    return;
  }
  const bool is_in_use = IsAnyQuestionOpen();
  if (!is_in_use && dlclose(library) != 0) {
    LogError(kModuleAgent, "Error: Failed to unload libbamf");
  } else {
    LogInfo(kModuleAgent, "libbamf unloaded successfully");
  }
  library = nullptr;
  matcher_daemon.reset();
  if (!is_in_use) {
    bamf = {};
  }
}

std::string BamfDesktopName(Window window) {
  if (!matcher_daemon) {
    return {};
  }
  const auto ask = [window, has_gobject = IsGLibGroupAvailable(GLibGroup::kGObject)] {
    std::string name = AskMatcher(window, has_gobject);
    RunMainContext();
    return name;
  };
  return matcher_daemon->AskWithin<std::string>(kPatience, ask).value_or("");
}

}  // namespace qel
