#include "appmenu/application_loader.h"

#include <algorithm>
#include <utility>

#include "appmenu/paths.h"
#include "appmenu/read_ahead.h"

namespace qel {
namespace {

constexpr std::string_view kSuffix = ".desktop";

// Whether SplitString(list, ';') holds the text.
bool ListHolds(std::string_view list, std::string_view text) {
  while (!list.empty()) {
    const std::size_t end = list.find(';');
    if (list.substr(0, end) == text) {
      return true;
    }
    list = end == std::string_view::npos ? std::string_view{} : list.substr(end + 1);
  }
  return false;
}

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
    : registry_(registry),
      desktop_name_(CurrentDesktopName(desktop)),
      listings_(listings),
      observer_(observer),
      values_{{"Desktop Entry",
               {{"Name", {}},
                {"Icon", {}},
                {"Exec", {}},
                {"Categories", {}},
                {"NoDisplay", {}},
                {"OnlyShowIn", {}},
                {"NotShowIn", {}}}}} {}

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
  ReadAhead ahead(paths);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    const std::string id = DesktopId(paths[i], directory);
    auto [position, known] = registry_.Find(id);
    if (!known) {
      HiddenBy hidden_by = HiddenBy::kNothing;
      const ReadAhead::Reading reading = ahead.Begin(i);
      position = registry_.Add(position, id, ReadEntry(paths[i], hidden_by));
      if (observer_ != nullptr) {
        observer_->OnEntryRead(id, hidden_by);
      }
    } else if (observer_ != nullptr) {
      observer_->OnEntryKnown(id, paths[i]);
    }
    if (!position->second.hidden) {
      shown.Insert(position->second.number);
    }
  }
  return shown;
}

DesktopEntry ApplicationLoader::ReadEntry(const std::string& path, HiddenBy& hidden_by) {
  auto& keys = values_.begin()->second;
  for (auto& [key, value] : keys) {
    value.clear();
  }
  ReadKeyFile(path, values_);
  const std::string& only_show_in = keys["OnlyShowIn"];
  if (keys["NoDisplay"] == "true") {
    hidden_by = HiddenBy::kNoDisplay;
  } else if (!only_show_in.empty() && !ListHolds(only_show_in, desktop_name_)) {
    hidden_by = HiddenBy::kOnlyShowIn;
  } else if (ListHolds(keys["NotShowIn"], desktop_name_)) {
    hidden_by = HiddenBy::kNotShowIn;
  }
  DesktopEntry entry;
  entry.path = NormalizePath(path);
  entry.name = keys["Name"];
  entry.icon = keys["Icon"];
  entry.exec = keys["Exec"];
  entry.categories = SplitString(keys["Categories"], ';');
  entry.hidden = hidden_by != HiddenBy::kNothing;
  return entry;
}

}  // namespace qel
