#include "icons/icon_lookup.h"

#include <unistd.h>

#include <cstdint>
#include <new>
#include <span>

#include "files/regular_file.h"
#include "icons/icon_folders.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr const char* kExtensions[] = {".png", ".xpm", ".svg"};
constexpr std::size_t kMaxIconFileSize = std::size_t{16} << 20;

// Searches one folder after the other for one name.
class NameSearch final : public IconFolderVisitor {
 public:
  explicit NameSearch(const std::string& name) : name_(name) {}

  bool Visit(const std::string& folder) override {
    path_ = FindIconFile(folder, name_);
    return !path_.empty();
  }
  void CannotOpen(const std::string& directory) override { LogCannotOpen(directory); }

  std::string TakePath() { return std::move(path_); }

 private:
  const std::string& name_;
  std::string path_;
};

}  // namespace

std::string FindIconFile(const std::string& folder, const std::string& name) {
  std::string path = folder + "/" + name;
  const std::size_t stem_length = path.size();
  for (const char* const extension : kExtensions) {
    path.replace(stem_length, std::string::npos, extension);
    if (access(path.c_str(), R_OK) == 0) {
      return path;
    }
  }
  return {};
}

std::vector<std::byte> ReadIconFile(const std::string& path) {
  // RegularFile reads other file types as empty, so that a FIFO or a device cannot block the thread.
  RegularFile file(path);
  if (!file.is_open()) {
    LogInfo(kModuleAgent, "Failed to open icon file");
    return {};
  }
  const std::size_t size = file.size();
  if (size > kMaxIconFileSize) {
    LogWarning(kModuleAgent, "Warning: Icon file '%s' is too large: %zu bytes", path.c_str(), size);
    return {};
  }
  std::vector<std::byte> bytes;
  try {
    bytes.resize(size);
  } catch (const std::bad_alloc&) {
    LogError(kModuleAgent, "Error: Not enough memory");
    return {};
  }
  if (file.Read({reinterpret_cast<char*>(bytes.data()), bytes.size()}) != bytes.size()) {
    return {};
  }
  return bytes;
}

std::string IconFinder::FindIconInTheme(const std::string& theme_dir, const std::string& name) {
  NameSearch search(name);
  WalkIconFolders(theme_dir, search);
  return search.TakePath();
}

std::string IconFinder::FindIconInAllThemes(const std::string& name) const {
  for (const std::string& theme_dir : themes_.ThemeDirs()) {
    if (std::string path = FindIconInTheme(theme_dir, name); !path.empty()) {
      return path;
    }
  }
  return {};
}

std::string IconFinder::FindIconFallback(const std::string& name) const {
  const std::string theme_dir = themes_.FindIconThemeDir(kFallbackTheme);
  if (!theme_dir.empty()) {
    if (std::string path = FindIconInTheme(theme_dir, name); !path.empty()) {
      return path;
    }
  }
  return FindIconFile(kPixmapsDir, name);
}

std::string IconFinder::FindIcon(const std::string& name, const std::string& fallback) const {
  if (name.starts_with('/')) {
    return name;
  }
  std::string path = FindIconInAllThemes(name);
  if (path.empty()) {
    path = FindIconFallback(name);
  }
  if (path.empty()) {
    path = FindIconFallback(fallback);
  }
  if (path.empty()) {
    LogInfo(kModuleAgent, "Failed to find icon file");
  }
  return path;
}

std::vector<std::byte> IconFinder::LoadIconFile(const std::string& name, const std::string& fallback) const {
  const std::string path = FindIcon(name, fallback);
  return path.empty() ? std::vector<std::byte>() : ReadIconFile(path);
}

}  // namespace qel
