#include "icons/icon_folders.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>

#include "appmenu/directory_handle.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr const char* kContextDirs[] = {"/apps",   "/actions", "/mimetypes", "/categories",
                                        "/places", "/devices", "/mimes"};

bool IsSearchable(const std::string& directory) {
  return access(directory.c_str(), X_OK) == 0;
}

// Nothing when the directory cannot be opened.
std::optional<std::vector<std::string>> ReadSizeDirs(const std::string& directory) {
  const DirectoryHandle handle(opendir(directory.c_str()));
  if (handle == nullptr) {
    return std::nullopt;
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

// The same without repetitions, for the search; equal sizes stand side by side.
std::vector<std::string> DistinctSizeDirs(const std::string& directory, IconFolderVisitor& visitor) {
  std::optional<std::vector<std::string>> dirs = ReadSizeDirs(directory);
  if (!dirs) {
    visitor.CannotOpen(directory);
    return {};
  }
  dirs->erase(std::unique(dirs->begin(), dirs->end()), dirs->end());
  return std::move(*dirs);
}

}  // namespace

void LogCannotOpen(const std::string& directory) {
  LogError(kModuleAgent, "Error: Failed to open directory '%s'", directory.c_str());
}

std::vector<std::string> ListSizeDirs(const std::string& directory) {
  std::optional<std::vector<std::string>> dirs = ReadSizeDirs(directory);
  if (!dirs) {
    LogCannotOpen(directory);
  }
  return std::move(dirs).value_or(std::vector<std::string>());
}

bool WalkIconFolders(const std::string& theme_dir, IconFolderVisitor& visitor) {
  bool has_context_dir = false;
  for (const char* const context : kContextDirs) {
    const std::string context_dir = theme_dir + context;
    if (!IsSearchable(context_dir)) {
      continue;
    }
    has_context_dir = true;
    for (const std::string& size_dir : DistinctSizeDirs(context_dir, visitor)) {
      if (visitor.Visit(size_dir)) {
        return true;
      }
    }
  }
  if (has_context_dir) {
    return false;
  }
  for (const std::string& size_dir : DistinctSizeDirs(theme_dir, visitor)) {
    for (const char* const context : kContextDirs) {
      if (visitor.Visit(size_dir + context)) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace qel
