// Owner of an open directory.
#pragma once

#include <dirent.h>

#include "base/owner.h"

namespace qel {

using DirectoryHandle = Owner<DIR, closedir>;

}  // namespace qel
