#include "appmenu/directory_files.h"

#include <climits>
#include <cstdint>

#include "files/regular_file.h"

namespace qel {
namespace {

constexpr std::size_t kRecordCost = 200;    // bytes of memory for a file, besides its path
constexpr std::int64_t kLookUpTime = 1000;  // estimated nanoseconds
constexpr std::int64_t kReadTime = 10'000;

}  // namespace

const DirectoryFile* DirectoryFiles::Find(const std::vector<std::string>& directories, const std::string& name) {
  if (name.empty()) {
    return nullptr;
  }
  const LoadBudget::Share share(budget_, limit_);
  for (const std::string& directory : directories) {
    if (!budget_.Spend(kLookUpTime, name)) {
      return nullptr;
    }
    const std::string path = directory + "/" + name;
    if (path.size() >= PATH_MAX) {
      continue;
    }
    auto file = files_.find(path);
    if (file == files_.end()) {
      if (!budget_.Spend(kReadTime, path) || !budget_.TakeBytes(path.size() + kRecordCost, path)) {
        return nullptr;
      }
      file = files_.emplace(path, Read(path)).first;
    }
    if (file->second) {
      return &*file->second;
    }
  }
  return nullptr;
}

std::optional<DirectoryFile> DirectoryFiles::Read(const std::string& path) {
  RegularFile file(path);
  if (!file.is_open()) {
    return std::nullopt;
  }
  auto& keys = values_["Desktop Entry"];
  keys["Name"].clear();
  keys["NoDisplay"].clear();
  reader_.Read(file);
  return DirectoryFile{.name = keys["Name"], .no_display = keys["NoDisplay"] == "true"};
}

}  // namespace qel
