// Finding files by name below a directory.
#pragma once

#include <string>
#include <vector>

#include "appmenu/load_budget.h"

namespace qel {

// The paths below `directory` whose last component matches `pattern` (as fnmatch() understands it), each beginning with
// the directory as given, the directory itself included: what `find DIRECTORY -name PATTERN` prints. Names of every
// kind count, folders too; symbolic links are not followed, except in `directory` when it ends in "/". Folders that
// cannot be read are passed over, and so are those whose path is longer than the system takes.
//
// Within each folder the names are in byte order, and what a subfolder holds stands at its name. What the budget does
// not allow for is left out; null: there is no limit.
std::vector<std::string> FindFiles(const std::string& directory, const std::string& pattern,
                                   LoadBudget* budget = nullptr);

}  // namespace qel
