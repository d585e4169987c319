// Finding an icon's file by name and reading it whole.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "icons/icon_themes.h"

namespace qel {

// The readable file of this name in one folder, with the extension ".png", else ".xpm", else ".svg"; empty when there
// is none. The name is used as it comes.
std::string FindIconFile(const std::string& folder, const std::string& name);

// The content of a regular file; empty when it cannot be had. Files of more than 16 MiB are refused: the host receives
// all icons of the menu in one message, whose length has 32 bits, and a file that large is no icon.
std::vector<std::byte> ReadIconFile(const std::string& path);

// Searches afresh with each call and remembers nothing. The themes must outlive the finder. Worker thread only.
class IconFinder {
 public:
  explicit IconFinder(const IconThemes& themes) : themes_(themes) {}

  const IconThemes& Themes() const { return themes_; }

  // A path, or empty.
  std::string FindIconInAllThemes(const std::string& name) const;
  static std::string FindIconInTheme(const std::string& theme_dir, const std::string& name);

  // Outside the chosen themes: in the theme "gnome", then among the pixmaps.
  std::string FindIconFallback(const std::string& name) const;

  // The path of an icon's file: the name itself when it is an absolute path, else the first found in the themes, in the
  // fallback places, or there by the fallback name. Empty, and logged, when nothing is found.
  std::string FindIcon(const std::string& name, const std::string& fallback) const;

  // The content of that file; empty when nothing is found or read.
  std::vector<std::byte> LoadIconFile(const std::string& name, const std::string& fallback) const;

 private:
  const IconThemes& themes_;
};

// The places of FindIconFallback().
inline constexpr const char* kFallbackTheme = "gnome";
inline constexpr const char* kPixmapsDir = "/usr/share/pixmaps";

}  // namespace qel
