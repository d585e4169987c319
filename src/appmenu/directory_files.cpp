#include "appmenu/directory_files.h"

#include <climits>

#include "appmenu/xml_tree.h"

namespace qel {
namespace {

constexpr std::size_t kMaxLookups = std::size_t{64} << 20;  // bytes of memory
constexpr std::size_t kLookupCost = 100;                    // bytes that a look-up takes up besides the path
constexpr std::size_t kFilesAhead = 64;                     // open at a time

}  // namespace

DirectoryFiles::DirectoryFiles(const xmlNode* menu)
    : values_{{"Desktop Entry", {{"Name", {}}, {"NoDisplay", {}}}}}, lookups_(kMaxLookups, "too many directory files") {
  LookUp(menu);
  ReadWaiting();
}

const DirectoryFile* DirectoryFiles::Of(const xmlNode* element) const {
  const auto found = by_element_.find(element);
  return found != by_element_.end() ? found->second : nullptr;
}

void DirectoryFiles::LookUp(const xmlNode* menu) {
  const std::size_t parent_directories = directories_.size();
  for (const xmlNode* child = menu->children; child != nullptr; child = child->next) {
    if (IsElement(child, "Menu")) {
      LookUp(child);
    } else if (IsElement(child, "DirectoryDir")) {
      if (std::string directory = ElementText(child); !directory.empty()) {
        directories_.push_back(std::move(directory));
      }
    } else if (IsElement(child, "Directory")) {
      if (const DirectoryFile* const file = Find(ElementText(child))) {
        by_element_.emplace(child, file);
      }
    }
  }
  directories_.resize(parent_directories);
}

const DirectoryFile* DirectoryFiles::Find(const std::string& name) {
  if (name.empty()) {
    return nullptr;
  }
  std::string path;
  for (const std::string& directory : directories_) {
    if (!lookups_.Take(directory.size() + name.size() + kLookupCost, name)) {
      return nullptr;
    }
    path.assign(directory).append("/").append(name);
    if (path.size() >= PATH_MAX) {
      continue;
    }
    if (const DirectoryFile* const file = OpenOnce(path)) {
      return file;
    }
  }
  return nullptr;
}

// Null when the file cannot be opened. What has to come from the disk is left to ReadWaiting(), so that the disk is
// asked for all of it at once.
const DirectoryFile* DirectoryFiles::OpenOnce(const std::string& path) {
  const auto [entry, is_new] = files_.try_emplace(path);
  auto& [readable, file] = entry->second;
  if (is_new) {
    RegularFile opened = opener_.Open(path.c_str());
    if (waiting_.size() == kFilesAhead || opened.lacks_descriptor()) {
      ReadWaiting();
      opened = opener_.Open(path.c_str());
    }
    readable = opened.is_open();
    if (reader_.ReadCached(opened, opener_.tells_cached())) {
      TakeValues(file);
    } else {
      waiting_.emplace_back(std::move(opened), &file);
    }
  }
  return readable ? &file : nullptr;
}

void DirectoryFiles::ReadWaiting() {
  for (auto& [opened, file] : waiting_) {
    reader_.Read(opened);
    TakeValues(*file);
  }
  waiting_.clear();
}

// Moves the values read last to their file.
void DirectoryFiles::TakeValues(DirectoryFile& file) {
  auto& keys = values_.begin()->second;
  file.name = std::exchange(keys["Name"], {});
  file.no_display = std::exchange(keys["NoDisplay"], {}) == "true";
}

}  // namespace qel
