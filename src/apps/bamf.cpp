#include "apps/bamf.h"

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "base/respondent.h"
#include "desktop/glib_api.h"
#include "files/paths.h"
#include "libraries/library.h"
#include "log/log.h"

namespace qel {
namespace {

// The library's objects are untyped pointers, because its headers are not used.
struct BamfFunctions {
  void* (*bamf_matcher_get_default)();
  void* (*bamf_matcher_get_application_for_xid)(void* matcher, std::uint32_t window);
  const char* (*bamf_application_get_desktop_file)(void* application);  // the library owns the text
  // From the GLib on which libbamf depends. A null context is the default main context.
  int (*g_main_context_pending)(void* context);
  int (*g_main_context_iteration)(void* context, int may_block);
};

void* library = nullptr;
BamfFunctions bamf;

// A daemon that cannot be started delays every question by 25 seconds, and the worker, which waits, must serve windows
// and requests of the host. A normal daemon starts in less than a second.
constexpr std::chrono::seconds kPatience{2};
std::optional<Respondent> matcher_daemon;  // set while the library is loaded
void* kept_matcher = nullptr;              // used only inside of questions
std::atomic<bool> has_given_up{false};

// The matcher can be released only if the GObject functions are loaded.
struct ReleaseMatcher {
  bool has_gobject;
  void operator()(void* matcher) const {
    if (has_gobject) {
      glib::g_object_unref(matcher);
    }
  }
};

void ReleaseKeptMatcher(bool has_gobject) {
  if (kept_matcher != nullptr) {
    ReleaseMatcher{has_gobject}(std::exchange(kept_matcher, nullptr));
  }
}

// GDBus queues the daemon's signals, some kilobytes for each window, in the default main context, which no other code
// runs. Handling them can queue more, so there is a limit.
void RunMainContext() {
  constexpr int kMostEvents = 10'000;
  for (int i = 0; i < kMostEvents && bamf.g_main_context_iteration(nullptr, 0) != 0; ++i) {
  }
}

// Runs a question on the asking thread. Only one thread at a time uses libbamf.
template <typename Answer>
Answer Ask(const std::function<Answer(bool has_gobject)>& question) {
  const bool has_gobject = IsGLibGroupAvailable(GLibGroup::kGObject);
  const std::optional<Answer> answer = matcher_daemon->AskWithin<Answer>(kPatience, [question, has_gobject] {
    Answer found = question(has_gobject);
    RunMainContext();
    if (has_given_up.load()) {
      ReleaseKeptMatcher(has_gobject);  // otherwise it would continue to receive signals
    }
    return found;
  });
  if (!answer) {
    has_given_up.store(true);
  }
  return answer.value_or(Answer());
}

template <typename Function>
bool Resolve(Function& entry, const char* name) {
  const char* const error = FindFunction(library, name, entry);
  if (error != nullptr) {
    LogError(kModuleAgent, "Error: Failed to load symbol '%s': %s", name, error);
  }
  return error == nullptr;
}

// libbamf has one matcher and returns references to it. Releasing the last reference destroys the matcher; that leaks a
// few hundred bytes, and a new matcher must ask the daemon many questions. So one reference is kept, but only of a
// matcher that has found an application: a matcher that was created while the daemon was missing never finds any.
void KeepMatcher() {
  if (kept_matcher == nullptr) {
    kept_matcher = bamf.bamf_matcher_get_default();
  }
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
  KeepMatcher();
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
  has_given_up.store(false);
  LogInfo(kModuleAgent, "Loading libbamf symbols");
  library = OpenLibrary("libbamf3.so.2");
  if (library == nullptr) {
    LogWarning(kModuleAgent, "Warning: Failed to load libbamf");
    return;
  }
  if (!Resolve(bamf.bamf_matcher_get_default, "bamf_matcher_get_default") ||
      !Resolve(bamf.bamf_matcher_get_application_for_xid, "bamf_matcher_get_application_for_xid") ||
      !Resolve(bamf.bamf_application_get_desktop_file, "bamf_application_get_desktop_file") ||
      !Resolve(bamf.g_main_context_pending, "g_main_context_pending") ||
      !Resolve(bamf.g_main_context_iteration, "g_main_context_iteration")) {
    BamfUnload();
    return;
  }
  matcher_daemon.emplace("bamf");
  LogInfo(kModuleAgent, "libbamf loaded successfully");
}

void BamfUnload() {
  if (library == nullptr) {
    return;
  }
  const bool is_in_use = IsAnyQuestionOpen();
  if (!is_in_use) {
    ReleaseKeptMatcher(IsGLibGroupAvailable(GLibGroup::kGObject));
  }
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
  return Ask<std::string>([window](bool has_gobject) { return AskMatcher(window, has_gobject); });
}

void BamfHandleSignals() {
  if (!has_given_up.load() && kept_matcher != nullptr && bamf.g_main_context_pending(nullptr) != 0) {
    Ask<bool>([](bool) { return true; });
    malloc_trim(0);  // the daemon tells of every window in many small blocks
  }
}

}  // namespace qel
