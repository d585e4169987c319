#include "appmenu/application_loader.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/entry_reader.h"
#include "appmenu/parallel.h"

namespace qel {
namespace {

constexpr std::string_view kSuffix = ".desktop";

std::string DesktopId(std::string_view path, std::string_view directory) {
  std::string id;
  if (path.starts_with(directory) && path.size() > directory.size() + kSuffix.size() + 1) {
    path.remove_prefix(directory.size());
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    id = path;
    std::replace(id.begin(), id.end(), '/', '-');
  }
  const auto alias = DesktopIdAliases().find(id);
  return alias != DesktopIdAliases().end() ? std::string(alias->second) : id;
}

}  // namespace

ApplicationLoader::ApplicationLoader(DesktopEntryRegistry& registry, DesktopKind desktop, FolderListings& listings,
                                     MenuObserver* observer)
    : registry_(registry), desktop_name_(CurrentDesktopName(desktop)), listings_(listings), observer_(observer) {}

EntrySet ApplicationLoader::LoadApplicationDir(const std::string& directory, bool unallocated_only) {
  auto shown = shown_.find(directory);
  if (shown == shown_.end()) {
    shown = shown_.emplace(directory, ReadDirectory(directory)).first;
  }
  EntrySet entries = shown->second;
  if (unallocated_only) {
    entries -= registry_.allocated();
  }
  return entries;
}

EntrySet ApplicationLoader::ReadDirectory(const std::string& directory) {
  EntrySet shown;
  if (directory.empty()) {
    return shown;
  }
  const std::string start = directory.starts_with('/') ? directory : "./" + directory;
  const std::vector<std::string>& paths = listings_.FindFiles(start, "*.desktop");

  // The first file that gives an id supplies the record.
  struct NewEntry {
    const std::string* path;
    DesktopEntryRegistry::Position position;
    DesktopEntry content;
    HiddenBy hidden_by;
  };
  std::vector<NewEntry> new_entries;
  std::vector<const DesktopEntry*> entries;
  for (const std::string& path : paths) {
    const std::string id = DesktopId(path, directory);
    auto [position, known] = registry_.Find(id);
    if (!known) {
      position = registry_.Add(position, id);
      new_entries.push_back({&path, position, {}, HiddenBy::kNothing});
    } else if (observer_ != nullptr) {
      observer_->OnEntryKnown(id, path);
    }
    entries.push_back(&position->second);
  }

  RunInParallel(new_entries.size(), [&] {
    return [&, reader = EntryReader(desktop_name_)](std::size_t i) mutable {
      new_entries[i].content = reader.Read(*new_entries[i].path, new_entries[i].hidden_by);
    };
  });
  for (NewEntry& entry : new_entries) {
    registry_.Fill(entry.position->second, std::move(entry.content));
    if (observer_ != nullptr) {
      observer_->OnEntryRead(entry.position->first, entry.hidden_by);
    }
  }

  for (const DesktopEntry* entry : entries) {
    if (!entry->hidden) {
      shown.Insert(entry->number);
    }
  }
  return shown;
}

}  // namespace qel
