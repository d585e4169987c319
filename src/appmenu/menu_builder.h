// Evaluating the rules of an expanded menu: which application stands in which menu.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "appmenu/allowance.h"
#include "appmenu/application_loader.h"
#include "appmenu/desktop_entries.h"
#include "appmenu/directory_files.h"
#include "appmenu/entry_set.h"
#include "appmenu/menu_observer.h"

namespace qel {

// An application in a menu.
struct Placement {
  EntryNumber entry;
  std::size_t menu;  // index of the menu's path, see MenuBuilder::TakeMenuPaths()
};

// Builds a menu in passes. One builder serves one load.
//
// What no desktop needs is refused with a line in the log: rules below a depth of 256, more than 2048 bytes of a menu's
// path or 32 MiB of all of them, more than a million placements, categories that give rules more than 200 million
// entries.
class MenuBuilder {
 public:
  // All references must outlive the builder; the observer may be null.
  MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader, const DirectoryFiles& directory_files,
              MenuObserver* observer = nullptr);

  // The placements of a menu and of the menus below it, for which the directory files were read. Placements of one
  // entry are in document order, a menu's own behind those of its submenus.
  //
  // Without `unallocated_only`, the first pass, menus with `OnlyUnallocated` are left out, all below them included.
  // With it every menu is built, from application directories of which only entries in no menu so far are taken. All
  // entries selected are noted as allocated, also by menus that are not shown.
  std::vector<Placement> BuildMenuPass(xmlNode* menu, bool unallocated_only);

  // "/" and the names from the top menu down, joined by "/", of all menus that have been given an entry.
  std::vector<std::string> TakeMenuPaths() { return std::move(menu_paths_); }

 private:
  void BuildMenu(xmlNode* menu, const std::string& parent_path, const EntrySet& parent_pool);
  void Place(const EntrySet& entries, const std::string& path);
  void EvaluateRule(const xmlNode* rule, const EntrySet& universe, EntrySet& result, int depth = 0);
  void AddSelected(const xmlNode* element, const EntrySet& universe, EntrySet& result, int depth);
  std::string MenuPath(const std::string& parent_path, const std::string& name);

  DesktopEntryRegistry& registry_;
  ApplicationLoader& loader_;
  const DirectoryFiles& directory_files_;
  MenuObserver* const observer_;
  bool unallocated_only_ = false;        // of the current pass
  std::vector<Placement> placements_;    // of the current pass
  std::vector<std::string> menu_paths_;  // of both passes
  Allowance path_lengths_;               // nothing is taken of this and the next, they only refuse
  Allowance rule_depths_;
  Allowance all_paths_;       // bytes
  Allowance all_placements_;  // of both passes
  Allowance selections_;      // of entries by their categories
};

}  // namespace qel
