#include "apps/bamf.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <memory>

#include "appmenu/paths.h"
#include "desktop/glib_api.h"
#include "log/log.h"

namespace qel {
namespace {

// The library's objects are untyped: its headers are not used.
struct BamfFunctions {
  void* (*bamf_matcher_get_default)();
  void* (*bamf_matcher_get_application_for_xid)(void* matcher, std::uint32_t window);
  const char* (*bamf_application_get_desktop_file)(void* application);  // the text stays the library's
};

void* library = nullptr;
BamfFunctions bamf;

// A daemon that cannot be started costs 25 seconds with every question, and the thread that waits serves the windows
// and the host's requests. Starting a healthy one takes a fraction of a second.
constexpr std::chrono::seconds kPatience{10};
bool has_given_up = false;

// Without GObject's functions the matcher is not released.
struct ReleaseMatcher {
  void operator()(void* matcher) const {
    if (IsGLibGroupAvailable(GLibGroup::kGObject)) {
      glib::g_object_unref(matcher);
    }
  }
};

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

std::string AskMatcher(Window window) {
  const std::unique_ptr<void, ReleaseMatcher> matcher(bamf.bamf_matcher_get_default());
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
  has_given_up = false;
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
  LogInfo(kModuleAgent, "libbamf loaded successfully");
}

void BamfUnload() {
  if (library == nullptr) {
    return;
  }
  if (dlclose(library) != 0) {
    LogError(kModuleAgent, "Error: Failed to unload libbamf");
  } else {
    LogInfo(kModuleAgent, "libbamf unloaded successfully");
  }
  library = nullptr;
  bamf = {};
}

std::string BamfDesktopName(Window window) {
  if (library == nullptr || has_given_up) {
    return {};
  }
  const auto start = std::chrono::steady_clock::now();
  std::string name = AskMatcher(window);
  if (std::chrono::steady_clock::now() - start > kPatience) {
    LogWarning(kModuleAgent, "Warning: bamf takes too long to answer and is not asked any more");
    has_given_up = true;
  }
  return name;
}

}  // namespace qel
