// Evaluates the rules of an expanded menu definition: decides which application belongs to which menu.
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

// Builds the menu in two passes. One builder is used for one load, on one thread.
//
// The path of a menu is cut at 2048 bytes. When the bytes of the budget are used up, only entries that were in no menu
// before are placed.
class MenuBuilder {
 public:
  // All references must outlive the builder; the observer may be null.
  MenuBuilder(DesktopEntryRegistry& registry, ApplicationLoader& loader, LoadBudget& budget,
              MenuObserver* observer = nullptr);

  // Returns the placements of a menu and its submenus. The placements of one entry are in document order, those of a
  // menu after those of its submenus.
  //
  // First pass (`unallocated_only` is false): menus with `OnlyUnallocated` and their submenus are left out. Second pass
  // (true): all menus are built, but application directories give only entries that are in no menu so far. In both
  // passes all selected entries are marked as allocated, also those of menus that are not shown.
  std::vector<Placement> BuildMenuPass(xmlNode* menu, bool unallocated_only);

  // The paths of all menus that have placements: the names from the top menu down, each after a "/".
  std::vector<std::string> TakeMenuPaths() { return std::move(menu_paths_); }

 private:
  // A category's entries as a set: the first `taken` entries of the registry's list.
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
  std::vector<std::string> directories_;                        // the DirectoryDirs that apply to the current menu
  bool unallocated_only_ = false;                               // of the current pass
  std::vector<Placement> placements_;                           // of the current pass
  EntrySet placed_;                                             // in both passes
  std::vector<std::string> menu_paths_;                         // of both passes
  std::map<std::string, CategorySet, std::less<>> categories_;  // only categories with many entries
};

}  // namespace qel
