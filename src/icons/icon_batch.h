// Finding the icons of a whole menu at once.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "icons/icon_lookup.h"

namespace qel {

// Searches a set of names in one pass over the folders, looking into each folder once for all of them. What it finds
// and logs, name by name, is what IconFinder would, as long as nobody changes the folders meanwhile.
// Made for one message and dropped with it; it keeps the paths found, no listings. The finder must outlive it. Worker
// thread only.
class IconBatch {
 public:
  IconBatch(const IconFinder& finder, const std::vector<std::string>& names, const std::string& fallback);

  // As IconFinder::FindIcon() with the fallback of the constructor. A name that the constructor was not given is
  // searched afresh.
  std::string FindIcon(const std::string& name) const;

 private:
  class Search;

  // Where the search of one name ended, and how many unreadable directories it had met by then: each search of its own
  // would have logged these.
  struct Result {
    std::string path;
    std::size_t failure_count = 0;
  };
  struct Results {
    std::map<std::string, Result> by_name;
    std::vector<std::string> failures;  // directories, in the order met
  };

  static std::string Report(const Results& results, const std::string& name);

  const IconFinder& finder_;
  const std::string fallback_;
  Results names_;      // searched in the themes and the fallback places
  Results fallbacks_;  // the fallback name, searched in the fallback places
};

}  // namespace qel
