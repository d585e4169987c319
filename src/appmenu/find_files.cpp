#include "appmenu/find_files.h"

#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string_view>

#include "appmenu/directory_handle.h"

namespace qel {
namespace {

constexpr std::size_t kNameCost = 200;  // what looking at a name counts for, in bytes of a path that is kept
constexpr std::size_t kNames = 200'000 * (kNameCost + 50);
constexpr const char* kTooMany = "too many files under its folders";

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
  const bool is_suffix_;  // nothing but a "*" before plain characters
};

// The folders and the matching names of a folder, in byte order.
class NameList {
 public:
  struct Name {
    std::uint64_t order;  // the first bytes, as a number that sorts as they do
    std::uint32_t begin;  // of the text, in texts_
    std::uint16_t size;
    bool is_folder;
    bool matches;
  };

  void Add(std::string_view text, bool is_folder, bool matches) {
    std::uint64_t order = 0;
    if (text.size() >= sizeof order) {
      std::memcpy(&order, text.data(), sizeof order);
    } else {
      std::memcpy(&order, text.data(), text.size());
    }
    names_.push_back({be64toh(order), static_cast<std::uint32_t>(texts_.size()),
                      static_cast<std::uint16_t>(text.size()), is_folder, matches});
    texts_.append(text);
  }

  void Sort() {
    std::sort(names_.begin(), names_.end(),
              [&](const Name& a, const Name& b) { return a.order != b.order ? a.order < b.order : Text(a) < Text(b); });
  }

  std::string_view Text(const Name& name) const { return {texts_.data() + name.begin, name.size}; }

  // The names one after the other; null at the end.
  const Name* Next() { return next_ < names_.size() ? &names_[next_++] : nullptr; }

 private:
  std::string texts_;  // in one piece: that makes sorting cheap
  std::vector<Name> names_;
  std::size_t next_ = 0;
};

// The last component, without the slashes behind it.
std::string LastComponent(std::string_view path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string_view::npos) {
    return "/";
  }
  path = path.substr(0, end + 1);
  return std::string(path.substr(path.rfind('/') + 1));
}

DirectoryHandle OpenFolder(const std::string& path) {
  const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  DirectoryHandle folder(descriptor >= 0 ? fdopendir(descriptor) : nullptr);
  if (folder == nullptr && descriptor >= 0) {
    close(descriptor);
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
  Walk(const std::string& pattern, bool first_only, Allowance& allowance, Paths& paths)
      : pattern_(pattern), first_only_(first_only), allowance_(allowance), paths_(paths) {}

  void Run(const std::string& directory) {
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0) {
      return;
    }
    if (pattern_.Matches(LastComponent(directory).c_str())) {
      paths_.emplace_back(directory);
    }
    // A folder's path ends in "/" from here on, for its names to follow.
    std::vector<Level> levels;
    if (S_ISDIR(status.st_mode)) {
      levels.push_back({directory.ends_with('/') ? directory : directory + '/', List(directory)});
    }
    while (!levels.empty() && !IsComplete()) {
      Level& level = levels.back();
      const NameList::Name* const name = level.names.Next();
      if (name == nullptr) {
        levels.pop_back();
        continue;
      }
      const std::string_view text = level.names.Text(*name);
      if (name->matches) {
        std::pmr::string& path = paths_.emplace_back();
        path.reserve(level.path.size() + text.size());
        path.append(level.path).append(text);
      }
      if (name->is_folder) {
        std::string path = level.path;
        path.append(text);
        NameList names = List(path);
        levels.push_back({path += '/', std::move(names)});
      }
    }
    if (first_only_ && paths_.size() > 1) {
      paths_.resize(1);
    }
  }

 private:
  struct Level {
    std::string path;
    NameList names;
  };

  bool IsComplete() const { return first_only_ && !paths_.empty(); }

  NameList List(const std::string& path) {
    NameList names;
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
      if (!allowance_.Take(kNameCost + (is_kept ? path.size() + text.size() : 0), path)) {
        break;
      }
      if (is_kept) {
        names.Add(text, is_folder, matches);
      }
    }
    names.Sort();
    return names;
  }

  const NamePattern pattern_;
  const bool first_only_;
  Allowance& allowance_;
  Paths& paths_;
};

}  // namespace

Paths FindFiles(const std::string& directory, const std::string& pattern, bool first_only) {
  Allowance allowance(std::numeric_limits<std::size_t>::max(), kTooMany);
  Paths paths;
  Walk(pattern, first_only, allowance, paths).Run(directory);
  return paths;
}

FolderListings::FolderListings() : allowance_(kNames, kTooMany) {}

const Paths& FolderListings::FindFiles(const std::string& directory, const std::string& pattern) {
  const auto [entry, is_new] = found_.try_emplace({directory, pattern}, &memory_);
  if (is_new) {
    Allowance own(kNames, kTooMany);
    Walk(pattern, false, reserved_.contains(directory) ? own : allowance_, entry->second).Run(directory);
  }
  return entry->second;
}

}  // namespace qel
