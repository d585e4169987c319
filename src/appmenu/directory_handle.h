// Owner of an open directory.
#pragma once

#include <dirent.h>

#include <memory>

namespace qel {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

using DirectoryHandle = std::unique_ptr<DIR, CloseDirectory>;

}  // namespace qel
