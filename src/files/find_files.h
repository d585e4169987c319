// Finding files by name below a directory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qel {

// Decides whether a search may use this much more processor time (an estimate) and memory. `path` is the folder that it
// has reached.
using SearchAllowance = std::function<bool(std::int64_t nanoseconds, std::size_t bytes, const std::string& path)>;

// Returns the paths that `find DIRECTORY -name PATTERN` prints: `directory` itself and all paths below it whose last
// component matches `pattern` (as in fnmatch()). Each path begins with `directory` as given. Files of every type are
// returned, also folders. Symbolic links are not followed, except in `directory` when it ends in "/". A folder that
// cannot be read, or whose path is too long for the system, is skipped.
//
// The names of a folder are in byte order; the content of a subfolder follows directly after its name. When `may_go_on`
// returns false for a folder, or for a name in it, the folder or the rest of its names is left out. An empty
// `may_go_on` allows everything. Any thread may call it.
std::vector<std::string> FindFiles(const std::string& directory, const std::string& pattern,
                                   SearchAllowance may_go_on = {});

}  // namespace qel
