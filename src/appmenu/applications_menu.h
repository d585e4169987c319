// The applications menu of the guest as a flat list.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/desktop_entries.h"
#include "appmenu/menu_observer.h"

namespace qel {

// An application in a menu. The registry owns `id`, and the MenuEntries object owns `menu_path`.
struct MenuEntry {
  std::string_view id;
  std::string_view menu_path;  // for example "/Applications/Games"
};

// All placements, in byte order of their ids. Placements with the same id are in the order of the menus. The same
// placement may occur twice, because a menu that selects by category does so in both passes.
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
  std::string system_menus = "/etc/xdg/menus";  // directory of the fallback menu files of KDE and Unity
  std::function<bool()> may_go_on = {};         // returns false to end the load early; may be empty
};

// Finds the menu definition file (freedesktop.org Desktop Menu standard), reads it with all merged files, reads the
// desktop entries, and applies the rules. Returns an empty list, with an error logged, when there is no menu
// definition. The registry keeps the entries, and which of them are in a menu, for later loads. Content for which the
// LoadBudget is not enough is left out, and one warning is logged: a load takes at most 2 s of processor time. Called
// on the thread that owns the registry; no other thread may use libxml2 at the same time.
MenuEntries LoadApplicationsMenu(DesktopEntryRegistry& registry, DesktopKind desktop,
                                 const MenuLoadOptions& options = {});

}  // namespace qel
