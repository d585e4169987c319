// Evaluating the rules of an expanded menu: which application stands in which menu.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/application_loader.h"
#include "appmenu/desktop_entries.h"
#include "appmenu/directory_files.h"
#include "appmenu/entry_set.h"
#include "appmenu/load_budget.h"
#include "appmenu/menu_observer.h"

namespace qel {

// An application in a menu.
struct Placement {
  EntryNumber entry;
  std::size_t menu;  // index of the menu's path, see MenuBuilder::TakeMenuPaths()
};

// Builds a menu in passes. One builder serves one load.
//
// Of a menu's path no more than 2048 bytes are kept. Once the budget is used up, only entries that no menu has had are
// placed.
class MenuBuilder {
 public:
  // All references must outlive the builder; the observer may be null.
  MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader, LoadBudget& budget,
              MenuObserver* observer = nullptr);

  // The placements of a menu and of the menus below it. Placements of one entry are in document order, a menu's own
  // behind those of its submenus.
  //
  // Without `unallocated_only`, the first pass, menus with `OnlyUnallocated` are left out, all below them included.
  // With it every menu is built, from application directories of which only entries in no menu so far are taken. All
  // entries selected are noted as allocated, also by menus that are not shown.
  std::vector<Placement> BuildMenuPass(xmlNode* menu, bool unallocated_only);

  // "/" and the names from the top menu down, joined by "/", of all menus that have been given an entry.
  std::vector<std::string> TakeMenuPaths() { return std::move(menu_paths_); }

 private:
  // The entries of a category as far as they are in the set.
  struct CategorySet {
    std::size_t taken = 0;
    EntrySet entries;
  };

  void BuildMenu(xmlNode* menu, const std::string& parent_path, const EntrySet& parent_pool);
  void Place(const EntrySet& entries, const std::string& path);
  void EvaluateRule(const xmlNode* rule, const EntrySet& universe, EntrySet& result);
  void AddSelected(const xmlNode* element, const EntrySet& universe, EntrySet& result);
  void AddCategory(std::string_view category, EntrySet& result);
  std::int64_t ElementTime() const;
  std::string MenuPath(const std::string& parent_path, const std::string& name);

  DesktopEntryRegistry& registry_;
  ApplicationLoader& loader_;
  LoadBudget& budget_;
  MenuObserver* const observer_;
  DirectoryFiles directory_files_;
  std::vector<std::string> directories_;  // for directory files, in force where the builder stands
  bool unallocated_only_ = false;         // of the current pass
  std::vector<Placement> placements_;     // of the current pass
  EntrySet placed_;                       // in both passes
  std::vector<std::string> menu_paths_;   // of both passes
  std::map<std::string, CategorySet, std::less<>> categories_;  // those with many entries
};

}  // namespace qel
