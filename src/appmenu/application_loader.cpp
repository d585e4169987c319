#include "appmenu/application_loader.h"

#include <algorithm>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/entry_reader.h"
#include "appmenu/regular_file.h"

namespace qel {
namespace {

constexpr std::string_view kSuffix = ".desktop";
constexpr std::size_t kFilesAhead = 64;  // open at a time

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
  std::vector<NewEntry> new_entries;
  std::vector<const DesktopEntry*> entries;
  entries.reserve(paths.size());
  for (const std::string& path : paths) {
    std::string id = DesktopId(path, directory);
    auto [position, known] = registry_.Find(id);
    if (!known) {
      position = registry_.Add(position, std::move(id));
      new_entries.push_back({&path, position});
    } else if (observer_ != nullptr) {
      observer_->OnEntryKnown(id, path);
    }
    entries.push_back(&position->second);
  }
  ReadEntries(new_entries);
  for (const DesktopEntry* entry : entries) {
    if (!entry->hidden) {
      shown.Insert(entry->number);
    }
  }
  return shown;
}

void ApplicationLoader::ReadEntries(const std::vector<NewEntry>& entries) {
  EntryReader reader(desktop_name_);
  std::deque<RegularFile> ahead;  // opened, so that the disk can fetch them in whatever order suits it
  auto next = entries.begin();
  for (const auto& [path, position] : entries) {
    // One that cannot be opened may mean that descriptors are short: those read first give theirs back to it.
    while (next != entries.end() && ahead.size() < kFilesAhead && (ahead.empty() || ahead.back().is_open())) {
      ahead.emplace_back(*next++->path);
    }
    if (!ahead.front().is_open()) {
      ahead.front() = RegularFile(*path);
    }
    HiddenBy hidden_by;
    registry_.Fill(position->second, reader.Read(*path, ahead.front(), hidden_by));
    ahead.pop_front();
    if (observer_ != nullptr) {
      observer_->OnEntryRead(position->first, hidden_by);
    }
  }
}

}  // namespace qel
