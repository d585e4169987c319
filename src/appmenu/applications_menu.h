// The guest's applications menu as a flat list.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/desktop_entries.h"
#include "appmenu/menu_observer.h"

namespace qel {

// An application in a menu. The texts belong to the registry and to the MenuEntries.
struct MenuEntry {
  std::string_view id;
  std::string_view menu_path;  // as in "/Applications/Games"
};

// All placements, in byte order of their ids; those of one id in the order in which the menus have it. One placement
// may stand here twice, since a menu that selects by category does so in both passes.
class MenuEntries {
 public:
  MenuEntries() = default;
  MenuEntries(std::vector<std::string> menu_paths, std::vector<MenuEntry> entries)
      : menu_paths_(std::move(menu_paths)), entries_(std::move(entries)) {}
  MenuEntries(MenuEntries&&) = default;
  MenuEntries& operator=(MenuEntries&&) = default;

  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }

 private:
  std::vector<std::string> menu_paths_;
  std::vector<MenuEntry> entries_;  // refer to menu_paths_
};

struct MenuLoadOptions {
  MenuObserver* observer = nullptr;
  std::string system_menus = "/etc/xdg/menus";  // where KDE and Unity have a menu when nothing else is found
  std::function<bool()> may_go_on = {};         // false: the load ends soon, with what was read; may be empty
};

// Finds the menu definition, reads it with all that it merges and the desktop entries it selects from, and applies its
// rules. Empty, with a line in the log, when there is no menu definition. The registry keeps the entries, and which of
// them are in a menu, for later loads. What would take more than a LoadBudget has is left out, with a line in the log:
// a load takes 2 s of processor time at most. To be called by the registry's thread; no other may use libxml2
// meanwhile.
MenuEntries LoadApplicationsMenu(DesktopEntryRegistry& registry, DesktopKind desktop,
                                 const MenuLoadOptions& options = {});

}  // namespace qel
