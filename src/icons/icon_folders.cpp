#include "icons/icon_folders.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "files/directory_handle.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr const char* kContextDirs[] = {"/apps",   "/actions", "/mimetypes", "/categories",
                                        "/places", "/devices", "/mimes"};

constexpr std::size_t kMaxSizes = 256;  // real themes have about 20; all of them are searched for each icon

bool IsSearchable(const std::string& directory) {
  return access(directory.c_str(), X_OK) == 0;
}

}  // namespace

void LogCannotOpen(const std::string& directory) {
  LogError(kModuleAgent, "Error: Failed to open directory '%s'", directory.c_str());
}

std::vector<std::string> ListSizeDirs(const std::string& directory, IconFolderVisitor& visitor) {
  const DirectoryHandle handle(opendir(directory.c_str()));
  if (handle == nullptr) {
    visitor.CannotOpen(directory);
    return {};
  }
  std::vector<unsigned long> sizes;
  bool has_x = false;
  while (const dirent* const entry = readdir(handle.get())) {
    char* end = nullptr;
    const unsigned long size = std::strtoul(entry->d_name, &end, 10);
    if (end != entry->d_name) {
      sizes.push_back(size);
      has_x = has_x || *end == 'x';
    }
  }
  std::ranges::sort(sizes);
  sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
  sizes.resize(std::min(sizes.size(), kMaxSizes));

  const std::string prefix = directory + "/";
  std::vector<std::string> dirs;
  dirs.reserve(sizes.size() + 1);
  for (const unsigned long size : sizes) {
    const std::string number = std::to_string(size);
    std::string& dir = dirs.emplace_back(prefix);
    dir.append(number);
    if (has_x) {
      dir.append("x").append(number);
    }
  }
  std::string scalable = prefix + "scalable";
  if (has_x && IsSearchable(scalable)) {
    dirs.push_back(std::move(scalable));
  }
  return dirs;
}

bool WalkIconFolders(const std::string& theme_dir, IconFolderVisitor& visitor) {
  bool has_context_dir = false;
  for (const char* const context : kContextDirs) {
    const std::string context_dir = theme_dir + context;
    if (!IsSearchable(context_dir)) {
      continue;
    }
    has_context_dir = true;
    for (const std::string& size_dir : ListSizeDirs(context_dir, visitor)) {
      if (visitor.Visit(size_dir)) {
        return true;
      }
    }
  }
  if (has_context_dir) {
    return false;
  }
  for (const std::string& size_dir : ListSizeDirs(theme_dir, visitor)) {
    for (const char* const context : kContextDirs) {
      if (visitor.Visit(size_dir + context)) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace qel
