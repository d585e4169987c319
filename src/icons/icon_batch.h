// Finds the icons of a whole menu at once.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "icons/icon_lookup.h"

namespace qel {

// Searches for a set of names in one pass over the folders: each folder is read once for all names. The results and log
// messages per name are the same as those of IconFinder, as long as the folders do not change meanwhile. An object is
// used for one message only. It keeps the paths that were found, not the listings. The finder must outlive it. One
// thread at a time.
class IconBatch {
 public:
  IconBatch(const IconFinder& finder, const std::vector<std::string>& names, const std::string& fallback);

  // The same as IconFinder::FindIcon() with the fallback of the constructor. A name that was not passed to the
  // constructor is searched again with each call.
  std::string FindIcon(const std::string& name) const;

 private:
  class Search;

  // The result for one name. A separate search for this name would have logged the first `failure_count` failures.
  struct Result {
    std::string path;
    std::size_t failure_count = 0;
  };
  struct Results {
    std::map<std::string, Result> by_name;
    std::vector<std::string> failures;  // directories that could not be opened, in search order
  };

  static std::string Report(const Results& results, const std::string& name);

  const IconFinder& finder_;
  const std::string fallback_;
  Results names_;      // the names, in the themes and the fallback places
  Results fallbacks_;  // the fallback name, in the fallback places
};

}  // namespace qel
