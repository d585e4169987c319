#include "appmenu/application_loader.h"

#include <algorithm>
#include <deque>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/entry_reader.h"
#include "appmenu/paths.h"
#include "appmenu/regular_file.h"

namespace qel {
namespace {

constexpr std::string_view kSuffix = ".desktop";
constexpr std::size_t kFilesAhead = 64;  // open at a time

// The result is part of the path or of `id`, or lives for ever.
std::string_view DesktopId(std::string_view path, std::string_view directory, std::string& id) {
  if (!path.starts_with(directory) || path.size() <= directory.size() + kSuffix.size() + 1) {
    return {};
  }
  path.remove_prefix(directory.size());
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  if (path.find('/') != std::string_view::npos) {
    id = path;
    std::replace(id.begin(), id.end(), '/', '-');
    path = id;
  }
  const auto alias = DesktopIdAliases().find(path);
  return alias != DesktopIdAliases().end() ? alias->second : path;
}

}  // namespace

ApplicationLoader::ApplicationLoader(DesktopEntryRegistry& registry, DesktopKind desktop, FolderListings& listings,
                                     MenuObserver* observer)
    : registry_(registry), reader_(CurrentDesktopName(desktop)), listings_(listings), observer_(observer) {}

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
  const Paths& paths = listings_.FindFiles(start, "*.desktop");

  // The first file that gives an id supplies the record.
  std::vector<NewEntry> new_entries;
  std::vector<const DesktopEntry*> entries;
  entries.reserve(paths.size());
  std::string joined;
  for (const std::pmr::string& path : paths) {
    const std::string_view id = DesktopId(path, directory, joined);
    auto [position, known] = registry_.Find(id);
    if (!known) {
      position = registry_.Add(position, id);
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
  struct Waiting {
    const NewEntry* entry;
    RegularFile file;
  };
  std::string normal_path;
  std::deque<Waiting> waiting;  // for the disk, which fetches them in whatever order suits it

  const auto file_entry = [&](const NewEntry& entry) {
    const HiddenBy hidden_by = reader_.hidden_by();
    const std::string_view path = NormalizePath(*entry.path, normal_path);
    registry_.Fill(entry.position->second, reader_.Record(path), hidden_by != HiddenBy::kNothing);
    if (observer_ != nullptr) {
      observer_->OnEntryRead(entry.position->first, hidden_by);
    }
  };
  const auto read_first = [&] {
    reader_.Read(waiting.front().file);
    file_entry(*waiting.front().entry);
    waiting.pop_front();
  };

  for (const NewEntry& entry : entries) {
    RegularFile file = opener_.Open(entry.path->c_str());
    if (file.lacks_descriptor()) {
      while (!waiting.empty()) {
        read_first();
      }
      file = opener_.Open(entry.path->c_str());
    }
    if (reader_.ReadCached(file, opener_.tells_cached())) {
      file_entry(entry);
      continue;
    }
    if (waiting.size() == kFilesAhead) {
      read_first();
    }
    waiting.push_back({&entry, std::move(file)});
  }
  while (!waiting.empty()) {
    read_first();
  }
}

}  // namespace qel
