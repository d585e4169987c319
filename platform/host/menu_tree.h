// The applications menu as a tree, by the locations of its entries.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/notifications.h"

namespace qel::host {

struct MenuFolder {
  std::map<std::string, MenuFolder> folders;
  std::vector<const MenuEntry*> entries;  // of the menu it was made from, which has to outlive it; in its order
};

MenuFolder BuildMenuTree(const AppMenu& menu);

}  // namespace qel::host
