// Finding files by name below a directory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qel {

// Says whether a search may spend so much processor time, about, and keep so many bytes more. `path` is where it is.
using SearchAllowance = std::function<bool(std::int64_t nanoseconds, std::size_t bytes, const std::string& path)>;

// The paths below `directory` whose last component matches `pattern` (as fnmatch() understands it), each beginning with
// the directory as given, the directory itself included: what `find DIRECTORY -name PATTERN` prints. Names of every
// kind count, folders too; symbolic links are not followed, except in `directory` when it ends in "/". Folders that
// cannot be read are passed over, and so are those whose path is longer than the system takes.
//
// Within each folder the names are in byte order, and what a subfolder holds stands at its name. What is not
// allowed is left out; an empty `may_go_on` allows everything.
std::vector<std::string> FindFiles(const std::string& directory, const std::string& pattern,
                                   SearchAllowance may_go_on = {});

}  // namespace qel
