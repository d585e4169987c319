#include "icons/icon_batch.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "files/directory_handle.h"
#include "icons/icon_folders.h"
#include "log/log.h"

namespace qel {
namespace {

// The file name without its extension; nullopt when the extension is not that of an icon.
std::optional<std::string_view> IconStem(std::string_view file_name) {
  constexpr std::size_t kExtensionLength = 4;
  if (!file_name.ends_with(".png") && !file_name.ends_with(".xpm") && !file_name.ends_with(".svg")) {
    return std::nullopt;
  }
  return file_name.substr(0, file_name.size() - kExtensionLength);
}

// Checking a folder for one name takes about as long as listing this many bytes of the folder. So when only a few names
// are left, large folders are not listed. (On file systems where the size of a folder does not depend on the number of
// its entries, the slower way may be chosen; the result is the same.)
constexpr std::size_t kFolderBytesPerName = 512;

}  // namespace

// Searches one folder after the other for all names, until all are found.
class IconBatch::Search final : public IconFolderVisitor {
 public:
  explicit Search(Results& results) : results_(results) {
    for (auto& [name, result] : results_.by_name) {
      // A name with a "/" refers to a subfolder. A listing shows only its first component.
      const std::size_t slash = name.find('/');
      if (slash == std::string::npos) {
        plain_.emplace(name, Open{&name, &result});
      } else {
        nested_.emplace(std::string_view(name).substr(0, slash), Open{&name, &result});
      }
    }
  }

  // For names that were not found all failures are reported.
  ~Search() {
    for (const auto* const open : {&plain_, &nested_}) {
      for (const auto& [key, name] : *open) {
        name.result->failure_count = results_.failures.size();
      }
    }
  }

  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  void WalkTheme(const std::string& theme_dir) {
    if (!IsDone()) {
      WalkIconFolders(theme_dir, *this);
    }
  }

  void WalkFallbackPlaces(const IconThemes& themes) {
    const std::string theme_dir = themes.FindIconThemeDir(kFallbackTheme);
    if (!theme_dir.empty()) {
      WalkTheme(theme_dir);
    }
    Visit(kPixmapsDir);
  }

  bool Visit(const std::string& folder) override {
    struct stat status {};
    if (stat(folder.c_str(), &status) == 0) {
      SearchFolder(folder, static_cast<std::size_t>(status.st_size));
    }
    return IsDone();
  }

  void CannotOpen(const std::string& directory) override { results_.failures.push_back(directory); }

 private:
  // A name that has not been found yet.
  struct Open {
    const std::string* name;
    Result* result;
  };
  using OpenNames = std::unordered_multimap<std::string_view, Open>;

  bool IsDone() const { return plain_.empty() && nested_.empty(); }

  void SearchFolder(const std::string& folder, std::size_t folder_size) {
    if (folder_size < (plain_.size() + nested_.size()) * kFolderBytesPerName) {
      if (const DirectoryHandle handle{opendir(folder.c_str())}) {
        SearchListing(folder, handle.get());
        return;
      }
      // Files in a folder without read permission can still be opened by name.
    }
    std::erase_if(plain_, [&](const auto& open) { return TryFolder(folder, open.second); });
    std::erase_if(nested_, [&](const auto& open) { return TryFolder(folder, open.second); });
  }

  void SearchListing(const std::string& folder, DIR* directory) {
    while (const dirent* const entry = readdir(directory)) {
      const std::string_view file_name = entry->d_name;
      if (const std::optional<std::string_view> stem = IconStem(file_name)) {
        TryNames(folder, plain_, *stem);
      }
      if (!nested_.empty()) {
        TryNames(folder, nested_, file_name);
      }
    }
  }

  void TryNames(const std::string& folder, OpenNames& names, std::string_view key) {
    auto [name, end] = names.equal_range(key);
    while (name != end) {
      name = TryFolder(folder, name->second) ? names.erase(name) : std::next(name);
    }
  }

  // Returns true when the folder contains a readable icon file of this name; then the name is found. A listing alone
  // does not prove that.
  bool TryFolder(const std::string& folder, const Open& open) {
    open.result->path = FindIconFile(folder, *open.name);
    open.result->failure_count = results_.failures.size();
    return !open.result->path.empty();
  }

  Results& results_;
  OpenNames plain_;   // by name
  OpenNames nested_;  // by the first component of the name
};

IconBatch::IconBatch(const IconFinder& finder, const std::vector<std::string>& names, const std::string& fallback)
    : finder_(finder), fallback_(fallback) {
  for (const std::string& name : names) {
    if (!name.starts_with('/')) {
      names_.by_name.try_emplace(name);
    }
  }
  {
    Search search(names_);
    for (const std::string& theme_dir : finder_.Themes().ThemeDirs()) {
      search.WalkTheme(theme_dir);
    }
    search.WalkFallbackPlaces(finder_.Themes());
  }
  if (std::ranges::any_of(names_.by_name, [](const auto& name) { return name.second.path.empty(); })) {
    fallbacks_.by_name.try_emplace(fallback_);
    Search(fallbacks_).WalkFallbackPlaces(finder_.Themes());
  }
}

std::string IconBatch::Report(const Results& results, const std::string& name) {
  const Result& result = results.by_name.at(name);
  for (std::size_t i = 0; i < result.failure_count; ++i) {
    LogCannotOpen(results.failures[i]);
  }
  return result.path;
}

std::string IconBatch::FindIcon(const std::string& name) const {
  if (!names_.by_name.contains(name)) {
    return finder_.FindIcon(name, fallback_);
  }
  std::string path = Report(names_, name);
  if (path.empty()) {
    path = Report(fallbacks_, fallback_);
  }
  if (path.empty()) {
    LogInfo(kModuleAgent, "Failed to find icon file");
  }
  return path;
}

}  // namespace qel
