// Reading the desktop files of application directories into the registry.
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

// One load's view of the application directories: each is searched once, however often menus name it.
class ApplicationLoader {
 public:
  // All references must outlive the loader; the observer may be null.
  ApplicationLoader(DesktopEntryRegistry& registry, DesktopKind desktop, LoadBudget& budget,
                    MenuObserver* observer = nullptr);
  ApplicationLoader(const ApplicationLoader&) = delete;
  ApplicationLoader& operator=(const ApplicationLoader&) = delete;

  // The entries whose "*.desktop" files stand below a directory and which a menu may show; with `unallocated_only`,
  // just those that no menu holds so far. Entries not in the registry are read and filed; a file whose id is known is
  // not read, whichever directory the known record comes from. A file that cannot be read gives an empty record.
  //
  // The id of a file is its path below the directory with each "/" replaced by "-", or its legacy name where there is
  // one. It is empty when that leaves no more than nine characters behind the directory's text, and for all files of
  // a relative directory, which is looked for in the working directory.
  //
  // A directory gets half of the budget that is left, and all that are none of the desktop's own no more than half of
  // what there was at the beginning. Entries that there is no budget for to read are hidden.
  EntrySet LoadApplicationDir(const std::string& directory, bool unallocated_only);

 private:
  // Entries without content, and the files that have it.
  struct NewEntries {
    std::vector<DesktopEntryRegistry::Position> positions;
    std::vector<std::string> paths;
  };

  EntrySet ReadDirectory(const std::string& directory);
  void ReadEntries(const NewEntries& entries);

  DesktopEntryRegistry& registry_;
  EntryReader reader_;
  LoadBudget& budget_;
  const LoadBudget::Amounts limit_of_others_;  // for all directories together that are none of the defaults
  const std::vector<std::string> default_dirs_;
  MenuObserver* const observer_;
  std::map<std::string, EntrySet> shown_;  // of each directory loaded: its entries that are not hidden
};

}  // namespace qel
