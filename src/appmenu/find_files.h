// Finding files by name below a directory.
#pragma once

#include <cstddef>
#include <map>
#include <memory_resource>
#include <string>
#include <utility>
#include <vector>

namespace qel {

// The paths below `directory` whose last component matches `pattern` (as fnmatch() understands it), each beginning with
// the directory as given, the directory itself included: what `find DIRECTORY -name PATTERN` prints. Names of every
// kind count, folders too; symbolic links are not followed, except in `directory` when it ends in "/". Folders that
// cannot be read are passed over, and so are those whose path is longer than the system takes.
//
// Within each folder the names are in byte order, and what a subfolder holds stands at its name.
using Paths = std::pmr::vector<std::pmr::string>;
Paths FindFiles(const std::string& directory, const std::string& pattern, bool first_only = false);

// FindFiles() that remembers what it found: for the time of one load, in which a directory is named again and again.
// All searches together look at no more than 200,000 names, lest a menu that names "/" stops the agent.
class FolderListings {
 public:
  FolderListings() = default;
  FolderListings(const FolderListings&) = delete;
  FolderListings& operator=(const FolderListings&) = delete;

  // The result stays as long as the listings.
  const Paths& FindFiles(const std::string& directory, const std::string& pattern);

 private:
  std::size_t names_left_ = 200'000;
  std::pmr::monotonic_buffer_resource memory_;  // for the paths
  std::map<std::pair<std::string, std::string>, Paths> found_;
};

}  // namespace qel
