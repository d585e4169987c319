#include "files/find_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>

#include "base/file_descriptor.h"
#include "files/directory_handle.h"

namespace qel {
namespace {

constexpr std::int64_t kNameTime = 500;  // nanoseconds, estimated
constexpr std::int64_t kFolderTime = 20'000;
constexpr std::size_t kPathCost = 64;  // bytes of memory for a path besides its text

class NamePattern {
 public:
  explicit NamePattern(const std::string& pattern)
      : pattern_(pattern),
        is_suffix_(pattern.starts_with('*') && pattern.find_first_of("*?[\\", 1) == std::string::npos) {}

  bool Matches(const char* name) const {
    return is_suffix_ ? std::string_view(name).ends_with(std::string_view(pattern_).substr(1))
                      : fnmatch(pattern_.c_str(), name, 0) == 0;
  }

 private:
  const std::string& pattern_;
  const bool is_suffix_;  // the pattern is a "*" followed by plain characters only
};

// A name in a folder: of a subfolder, or one that matches the pattern.
struct Name {
  std::string text;
  bool is_folder;
  bool matches;
};

// The last component of a path, without trailing slashes.
std::string LastComponent(std::string_view path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) {
    return "/";
  }
  path = path.substr(0, end + 1);
  return std::string(path.substr(path.rfind('/') + 1));
}

DirectoryHandle OpenFolder(const std::string& path) {
  FileDescriptor file(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  DirectoryHandle folder(fdopendir(file.Get()));
  if (folder != nullptr) {
    [[maybe_unused]] const int owned_by_folder = file.Release();
  }
  return folder;
}

bool IsFolder(DIR* folder, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) {
    return entry.d_type == DT_DIR;
  }
  struct stat status {};
  return fstatat(dirfd(folder), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
}

class Walk {
 public:
  Walk(const std::string& pattern, SearchAllowance may_go_on) : pattern_(pattern), may_go_on_(std::move(may_go_on)) {}

  std::vector<std::string> Run(const std::string& directory) {
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0) {
      return {};
    }
    std::vector<std::string> paths;
    if (pattern_.Matches(LastComponent(directory).c_str())) {
      paths.push_back(directory);
    }
    // From here on the path of a folder ends in "/", so that a name can be appended.
    std::vector<Level> levels;
    if (S_ISDIR(status.st_mode)) {
      levels.push_back({directory.ends_with('/') ? directory : directory + '/', List(directory)});
    }
    while (!levels.empty()) {
      Level& level = levels.back();
      if (level.next == level.names.size()) {
        levels.pop_back();
        continue;
      }
      const Name& name = level.names[level.next++];
      const std::string path = level.path + name.text;
      if (name.matches) {
        paths.push_back(path);
      }
      if (name.is_folder && MayGoOn(kFolderTime, 0, path)) {
        levels.push_back({path + '/', List(path)});
      }
    }
    return paths;
  }

 private:
  struct Level {
    std::string path;
    std::vector<Name> names;
    std::size_t next = 0;
  };

  bool MayGoOn(std::int64_t nanoseconds, std::size_t bytes, const std::string& path) const {
    return !may_go_on_ || may_go_on_(nanoseconds, bytes, path);
  }

  // The folder's subfolders and matching names, in byte order.
  std::vector<Name> List(const std::string& path) {
    std::vector<Name> names;
    const DirectoryHandle folder = OpenFolder(path);
    const dirent* entry = nullptr;
    while (folder != nullptr && (entry = readdir(folder.get())) != nullptr) {
      const std::string_view text = entry->d_name;
      if (text == "." || text == "..") {
        continue;
      }
      const bool is_folder = IsFolder(folder.get(), *entry);
      const bool matches = pattern_.Matches(entry->d_name);
      const bool is_kept = is_folder || matches;
      if (!MayGoOn(kNameTime, is_kept ? path.size() + text.size() + kPathCost : 0, path)) {
        break;
      }
      if (is_kept) {
        names.push_back({std::string(text), is_folder, matches});
      }
    }
    std::ranges::sort(names, {}, &Name::text);
    return names;
  }

  const NamePattern pattern_;
  const SearchAllowance may_go_on_;
};

}  // namespace

std::vector<std::string> FindFiles(const std::string& directory, const std::string& pattern,
                                   SearchAllowance may_go_on) {
  return Walk(pattern, std::move(may_go_on)).Run(directory);
}

}  // namespace qel
