// The applications menu as a tree, built from the locations of its entries.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host/notifications.h"

namespace qel::host {

struct MenuFolder {
  std::map<std::string, MenuFolder> folders;
  std::vector<const MenuEntry*> entries;  // in menu order; pointers into the AppMenu, which must outlive the tree
};

MenuFolder BuildMenuTree(const AppMenu& menu);

}  // namespace qel::host
