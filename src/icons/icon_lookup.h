// Finds the file of an icon by its name, and reads it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "icons/icon_themes.h"

namespace qel {

// The path of the readable file with this name in a folder, with the extension ".png", else ".xpm", else ".svg"; empty
// when there is none. The name is not checked; it may contain "/".
std::string FindIconFile(const std::string& folder, const std::string& name);

// The content of a regular file; empty, with the reason logged in most cases, when it cannot be read. Files larger than
// 16 MiB are rejected: all icons of the menu are in one message, whose length has 32 bits.
std::vector<std::byte> ReadIconFile(const std::string& path);

// Each call searches again; nothing is cached. The themes must outlive the finder. One thread at a time: the worker, or
// the thread that loads the menu while the worker waits for it.
class IconFinder {
 public:
  explicit IconFinder(const IconThemes& themes) : themes_(themes) {}

  const IconThemes& Themes() const { return themes_; }

  // Both return a path, or an empty string when there is no such icon.
  std::string FindIconInAllThemes(const std::string& name) const;
  static std::string FindIconInTheme(const std::string& theme_dir, const std::string& name);

  // Searches in the theme "gnome", then in /usr/share/pixmaps.
  std::string FindIconFallback(const std::string& name) const;

  // The path of an icon file. A name that is an absolute path is returned unchanged. Otherwise searches for the name in
  // the themes, then in the fallback places, then for the fallback name in the fallback places. When nothing is found,
  // logs this and returns an empty string.
  std::string FindIcon(const std::string& name, const std::string& fallback) const;

  // The content of the file that FindIcon() finds; empty when none is found or it cannot be read.
  std::vector<std::byte> LoadIconFile(const std::string& name, const std::string& fallback) const;

 private:
  const IconThemes& themes_;
};

// The fallback places of FindIconFallback().
inline constexpr const char* kFallbackTheme = "gnome";
inline constexpr const char* kPixmapsDir = "/usr/share/pixmaps";

}  // namespace qel
