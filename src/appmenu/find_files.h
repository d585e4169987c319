// Finding files by name below a directory.
#pragma once

#include <cstddef>
#include <map>
#include <memory_resource>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "appmenu/allowance.h"

namespace qel {

using Paths = std::pmr::vector<std::pmr::string>;

// The paths below `directory` whose last component matches `pattern` (as fnmatch() understands it), each beginning with
// the directory as given, the directory itself included: what `find DIRECTORY -name PATTERN` prints. Names of every
// kind count, folders too; symbolic links are not followed, except in `directory` when it ends in "/". Folders that
// cannot be read are passed over, and so are those whose path is longer than the system takes.
//
// Within each folder the names are in byte order, and what a subfolder holds stands at its name.
Paths FindFiles(const std::string& directory, const std::string& pattern, bool first_only = false);

// FindFiles() that remembers what it found: for the time of one load, in which a directory is named again and again.
//
// A menu that names "/" must not stop the agent. So a search of a reserved directory, and all searches of others
// together, look at no more than some 200,000 names, fewer where the paths found are long.
class FolderListings {
 public:
  FolderListings();
  FolderListings(const FolderListings&) = delete;
  FolderListings& operator=(const FolderListings&) = delete;

  // Has a directory searched whatever others hold.
  void Reserve(const std::string& directory) { reserved_.insert(directory); }

  // The result stays as long as the listings.
  const Paths& FindFiles(const std::string& directory, const std::string& pattern);

 private:
  std::set<std::string> reserved_;
  Allowance allowance_;                         // for the directories that are not reserved
  std::pmr::monotonic_buffer_resource memory_;  // for the paths
  std::map<std::pair<std::string, std::string>, Paths> found_;
};

}  // namespace qel
