#include "host/menu_tree.h"

#include <sstream>

namespace qel::host {

MenuFolder BuildMenuTree(const AppMenu& menu) {
  MenuFolder root;
  for (const MenuEntry& entry : menu.entries) {
    MenuFolder* folder = &root;
    std::istringstream location(entry.location.value_or(""));
    for (std::string part; std::getline(location, part, '/');) {
      if (!part.empty()) folder = &folder->folders[part];
    }
    folder->entries.push_back(&entry);
  }
  return root;
}

}  // namespace qel::host
