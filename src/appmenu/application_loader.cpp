#include "appmenu/application_loader.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/entry_reader.h"
#include "files/find_files.h"
#include "files/paths.h"
#include "files/regular_file.h"

namespace qel {
namespace {

constexpr std::string_view kSuffix = ".desktop";
constexpr std::int64_t kReadTime = 5000;      // estimated nanoseconds to read a file
constexpr std::size_t kOrdinaryTexts = 1024;  // bytes; few real files have more than a third of this

EntryTexts PathAlone(std::string_view path) {
  EntryTexts texts;
  texts.path = path;
  return texts;
}

// The same strings that MenuExpander writes into the menu.
std::vector<std::string> DefaultApplicationDirs() {
  std::vector<std::string> directories = GetDataDirs();
  for (std::string& directory : directories) {
    directory += "/applications/";
  }
  return directories;
}

// The desktop id of a file. The result refers to `path` or `id`, or is a constant.
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

ApplicationLoader::ApplicationLoader(DesktopEntryRegistry& registry, DesktopKind desktop, LoadBudget& budget,
                                     MenuObserver* observer)
    : registry_(registry),
      reader_(CurrentDesktopName(desktop)),
      budget_(budget),
      limit_of_others_(budget.Half()),
      default_dirs_(DefaultApplicationDirs()),
      observer_(observer) {}

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
  const bool is_default = std::ranges::find(default_dirs_, directory) != default_dirs_.end();
  const LoadBudget::Amounts half = budget_.Half();
  const LoadBudget::Share share_of_others(budget_, is_default ? half : limit_of_others_);
  const LoadBudget::Share share(budget_, half);
  const std::string start = directory.starts_with('/') ? directory : "./" + directory;
  const std::vector<std::string> paths = [&] {
    const LoadBudget::Share search(budget_);  // keeps the other half to read the files that are found
    return FindFiles(start, "*.desktop", budget_.ForSearch());
  }();

  // The first file with an id supplies the record.
  NewEntries new_entries;
  std::vector<const DesktopEntry*> entries;
  entries.reserve(paths.size());
  std::string joined;
  for (const std::string& path : paths) {
    const std::string_view id = DesktopId(path, directory, joined);
    auto [position, known] = registry_.Find(id);
    if (!known) {
      position = registry_.Add(position, id);
      new_entries.positions.push_back(position);
      new_entries.paths.push_back(path);
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

void ApplicationLoader::ReadEntries(const NewEntries& entries) {
  std::size_t read = 0;
  ForEachFileAhead(entries.paths, [&](std::size_t index, RegularFile& file) {
    const std::string path = NormalizePath(entries.paths[index]);
    if (!budget_.Spend(kReadTime, path)) {
      return false;
    }
    reader_.Read(file);
    EntryTexts texts = reader_.Record(path);
    const std::size_t size = texts.name.size() + texts.icon.size() + texts.exec.size() + texts.categories.size();
    if (size > kOrdinaryTexts && !budget_.TakeBytes(size, path)) {
      texts = PathAlone(path);
    }
    const HiddenBy hidden_by = reader_.hidden_by();
    registry_.Fill(entries.positions[index]->second, texts, hidden_by != HiddenBy::kNothing);
    if (observer_ != nullptr) {
      observer_->OnEntryRead(entries.positions[index]->first, hidden_by);
    }
    read = index + 1;
    return true;
  });
  for (; read < entries.paths.size(); ++read) {
    registry_.Fill(entries.positions[read]->second, PathAlone(NormalizePath(entries.paths[read])), /*hidden=*/true);
  }
}

}  // namespace qel
