#include "apps/desktop_entry_match.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/bamf.h"
#include "apps/window_properties.h"
#include "log/log.h"

namespace qel {
namespace {

// Each window names its leader itself, so a chain of leaders may have any length or be circular. Real chains have two
// windows.
constexpr std::size_t kMaxLeaderChain = 8;

// Converts ASCII letters only, independent of the locale.
std::string ToLower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return text;
}

const FiledDesktopEntry* FindByName(DesktopEntryRegistry& registry, std::string_view name) {
  const auto [position, found] = registry.FindDesktopEntryByName(name);
  return found ? &*position : nullptr;
}

// The entry for a window itself; its leader is not considered.
const FiledDesktopEntry* MatchWindow(const Session& session, DesktopEntryRegistry& registry, Window window) {
  const std::optional<WmClass> wm_class = ReadWmClass(session, window);
  if (!wm_class) {
    return nullptr;
  }
  const FiledDesktopEntry* entry = FindByName(registry, wm_class->instance);
  if (entry == nullptr && !wm_class->class_name.empty()) {
    entry = FindByName(registry, wm_class->class_name);
    if (entry == nullptr) {
      entry = FindByName(registry, ToLower(wm_class->class_name));
    }
  }
  if (entry == nullptr) {
    const std::string name = BamfDesktopName(window);
    if (!name.empty()) {
      entry = FindByName(registry, name);
    }
  }
  return entry;
}

}  // namespace

DesktopEntryMatch MatchDesktopEntry(const Session& session, DesktopEntryRegistry& registry, Window window) {
  std::vector<Window> tried;  // the window, its leader, the leader of the leader and so on
  DesktopEntryMatch match;
  while (window != None && tried.size() < kMaxLeaderChain && std::ranges::find(tried, window) == tried.end()) {
    tried.push_back(window);
    match.entry = MatchWindow(session, registry, window);
    if (match.entry != nullptr) {
      break;
    }
    window = GetClientLeader(session, window);
    if (!match.leader) {
      match.leader = window;
    }
    if (window == tried.back()) {
      tried.pop_back();  // a window that is its own leader is not logged
      break;
    }
  }
  // One log line with the same result for each window that was tried, the last one first.
  for (auto searched = tried.rbegin(); searched != tried.rend(); ++searched) {
    if (match.entry != nullptr) {
      LogInfo(kModuleAgent, "Desktop file: wnd=%lx id='%s'", *searched, std::string(match.entry->first).c_str());
    } else {
      LogInfo(kModuleAgent, "Desktop file: wnd=%lx not found", *searched);
    }
  }
  return match;
}

}  // namespace qel
