// Reads the desktop files of application directories into the registry.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/desktop_entries.h"
#include "appmenu/entry_reader.h"
#include "appmenu/load_budget.h"
#include "appmenu/menu_observer.h"

namespace qel {

// Used for one load of the menu: each application directory is searched once, even when many menus name it. For one
// thread.
class ApplicationLoader {
 public:
  // All references must outlive the loader; the observer may be null.
  ApplicationLoader(DesktopEntryRegistry& registry, DesktopKind desktop, LoadBudget& budget,
                    MenuObserver* observer = nullptr);
  ApplicationLoader(const ApplicationLoader&) = delete;
  ApplicationLoader& operator=(const ApplicationLoader&) = delete;

  // Returns the entries of the "*.desktop" files below a directory that a menu may show; with `unallocated_only`, only
  // those that no menu contains so far. Entries that are not in the registry are read and added. A file whose id is
  // already in the registry is not read, even when the record comes from another directory. A file that cannot be read
  // gives an empty record.
  //
  // The id of a file is its path below the directory with each "/" replaced by "-", or its legacy name if there is
  // one. The id is empty when the path has at most nine characters after the text of the directory, and for all files
  // of a relative directory, which is searched from the working directory.
  //
  // A directory gets half of the remaining budget. All directories that are not default directories of the desktop
  // together get at most half of the budget that was left at the beginning. Entries that are not read for lack of
  // budget are hidden.
  EntrySet LoadApplicationDir(const std::string& directory, bool unallocated_only);

 private:
  // New records, still empty, and the files to fill them from.
  struct NewEntries {
    std::vector<DesktopEntryRegistry::Position> positions;
    std::vector<std::string> paths;
  };

  EntrySet ReadDirectory(const std::string& directory);
  void ReadEntries(const NewEntries& entries);

  DesktopEntryRegistry& registry_;
  EntryReader reader_;
  LoadBudget& budget_;
  const LoadBudget::Amounts limit_of_others_;  // for all directories together that are not default directories
  const std::vector<std::string> default_dirs_;
  MenuObserver* const observer_;
  std::map<std::string, EntrySet> shown_;  // for each loaded directory: its entries that are not hidden
};

}  // namespace qel
