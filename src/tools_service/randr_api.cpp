#include "tools_service/randr_api.h"

#include <chrono>
#include <iterator>

#include "base/respondent.h"
#include "libraries/library_group.h"
#include "log/log.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

constexpr const char* kLibraryNames[] = {"libXrandr.so", "libXrandr.so.1", "libXrandr.so.1.0.0", "libXrandr.so.2",
                                         nullptr};
constexpr const char* kFunctionNames[] = {"XRRGetScreenResources", "XRRFreeScreenResources", "XRRGetScreenSizeRange",
                                          "XRRGetOutputInfo",      "XRRGetCrtcInfo",         "XRRFreeOutputInfo",
                                          "XRRFreeCrtcInfo",       "XRRSetScreenSize",       "XRRSetCrtcConfig",
                                          "XRRSelectInput",        "XRRUpdateConfiguration", "XRRSetOutputPrimary"};
LibraryFunction g_functions[std::size(kFunctionNames)];
LibraryGroup g_group = {"RandR12", kFunctionNames, g_functions, std::size(kFunctionNames), nullptr, kLibraryNames};
bool g_tried = false;

struct RandRVersion {
  int major = 0;
  int minor = 0;
};

// Asks the server for its RandR version. Returns false when it has no RandR. XQueryExtension() is called first, because
// libXrandr leaks its record of a display that does not have the extension.
bool QueryRandRVersion(Display* display, RandRVersion& version) {
  int major_opcode = 0;
  int first_event = 0;
  int first_error = 0;
  return x_api.XQueryExtension(display, "RANDR", &major_opcode, &first_event, &first_error) != 0 &&
         x_api.XRRQueryExtension(display, &first_event, &first_error) != 0 &&
         x_api.XRRQueryVersion(display, &version.major, &version.minor) != 0;
}

// Whether the library and the server both have RandR 1.2. The thread may end in here, when the server goes away; where
// nobody waits for it any more, the group may be unloaded meanwhile.
bool IsRandR12Usable(bool library_loaded) {
  Display* display = x_api.XOpenDisplay(nullptr);
  if (display == nullptr) {
    return false;
  }
  RandRVersion version;
  const bool known = library_loaded && QueryRandRVersion(display, version);
  if (!known) {
    LogInfo(kModuleService, "RandR extension missing\n");
  }
  x_api.XCloseDisplay(display);
  return known && (version.major > 1 || (version.major == 1 && version.minor > 1));
}

}  // namespace

void RandR12Init() {
  if (g_tried) {
    return;
  }
  g_tried = true;
  LoadLibraryGroups(&g_group, 1);
  constexpr std::chrono::seconds kPatience{2};
  Respondent server("the X server");
  const auto question = [loaded = g_group.handle != nullptr] { return IsRandR12Usable(loaded); };
  if (server.AskWithin<bool>(kPatience, question).value_or(false)) {
    LogInfo(kModuleService, "RandR 1.2 initialized\n");
  } else {
    LogInfo(kModuleService, "RandR 1.2 support missing\n");
    UnloadLibraryGroups(&g_group, 1);
  }
}

void RandR12Deinit() {
  if (g_tried) {
    g_tried = false;
    UnloadLibraryGroups(&g_group, 1);
  }
}

}  // namespace qel
