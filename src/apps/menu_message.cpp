#include "apps/menu_message.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "files/paths.h"
#include "icons/icon_batch.h"
#include "icons/icon_lookup.h"
#include "log/log.h"

namespace qel {
namespace {

// Limits, because the whole message is in memory. In bytes; kEntryCost is for an entry without its texts.
constexpr std::size_t kMaxTextBytes = std::size_t{128} << 20;
constexpr std::size_t kEntryCost = 100;

// The part of the path after the name of the top menu: "Games" of "/Applications/Games".
std::string_view MenuLocation(std::string_view menu_path) {
  const std::size_t slash = menu_path.find('/', 1);
  return slash == std::string_view::npos ? std::string_view() : menu_path.substr(slash + 1);
}

std::uint32_t ModificationTime(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    LogError(kModuleAgent, "Error: Failed to stat %s", path.c_str());
    return 0;
  }
  return static_cast<std::uint32_t>(status.st_mtime);
}

// In bytes; 0 for a file that is missing or not a regular file.
std::uint64_t FileSize(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

// The icon files of one message. Each file is read once.
class MessageIcons {
 public:
  MessageIcons(const IconFinder& finder, const std::vector<std::string>& names) : batch_(finder, names, "") {}

  // The bytes are valid as long as this object. Empty when there is no icon, or no space left for it. After a failure
  // the next entry with the same icon tries again, so that there is a log line for each entry.
  std::span<const std::byte> Load(const std::string& name) {
    const std::string path = batch_.FindIcon(name);
    if (path.empty()) {
      return {};
    }
    auto file = files_.find(path);
    if ((file != files_.end() ? file->second.size() : FileSize(path)) > room_) {
      LogWarning(kModuleAgent, "Warning: The icons of the applications menu are too large, '%s' is left out",
                 path.c_str());
      return {};
    }
    if (file == files_.end()) {
      std::vector<std::byte> bytes = ReadIconFile(path);
      if (bytes.empty() || bytes.size() > room_) {
        return {};
      }
      file = files_.emplace(path, std::move(bytes)).first;
    }
    room_ -= file->second.size();
    return file->second;
  }

 private:
  // A menu with a few hundred entries has 2 or 3 MiB of icons. A sparse file needs no space on disk, but it needs
  // memory here.
  static constexpr std::size_t kMaxIconBytes = std::size_t{64} << 20;

  IconBatch batch_;
  std::map<std::string, std::vector<std::byte>> files_;  // by path
  std::size_t room_ = kMaxIconBytes;                     // bytes of icons that the message may still get
};

}  // namespace

void SendApplicationsMenu(const GuestCommands& guest_commands, DesktopEntryRegistry& entries, const IconFinder& icons,
                          const MenuEntries& menu) {
  LogInfo(kModuleAgent, "Applications menu has %zu entries.", menu.size());
  std::vector<std::string> icon_names;
  icon_names.reserve(menu.size());
  for (const MenuEntry& placement : menu) {
    icon_names.emplace_back(entries.GetDesktopEntry(placement.id).icon);
  }
  MessageIcons files(icons, icon_names);

  std::size_t text_room = kMaxTextBytes;
  bool is_logged = false;
  std::vector<AppMenuItem> items;
  items.reserve(menu.size());
  for (const MenuEntry& placement : menu) {
    DesktopEntry& entry = entries.GetDesktopEntry(placement.id);
    if (entry.name.empty()) {
      entries.Rename(entry, BaseNameNoExt(placement.id));
    }
    const std::string_view location = MenuLocation(placement.menu_path);
    const std::size_t size = entry.path.size() + entry.name.size() + location.size() + kEntryCost;
    if (size > text_room) {
      if (!std::exchange(is_logged, true)) {
        LogWarning(kModuleAgent,
                   "Warning: The applications menu has too many entries with long texts, left out at '%s'",
                   std::string(entry.path).c_str());
      }
      continue;
    }
    text_room -= size;
    items.push_back({.path = entry.path,
                     .name = entry.name,
                     .location = location,
                     .modified = ModificationTime(std::string(entry.path)),
                     .icon = files.Load(std::string(entry.icon))});
  }
  guest_commands.GuestCmdAppMenu(items);
}

}  // namespace qel
