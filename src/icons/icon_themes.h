// Finds the icon themes of the system and their search order (freedesktop.org Icon Theme standard).
#pragma once

#include <string>
#include <vector>

#include "desktop/desktop_kind.h"

namespace qel {

// Paths are not normalised; they are compared as strings. One thread at a time.
class IconThemes {
 public:
  // Finds the base directories again, and adds the theme that the user has chosen, the themes that it inherits from,
  // and "hicolor". Themes from earlier calls stay in the list, before the new ones.
  void DiscoverIconThemes(DesktopKind kind);

  // The first directory of this theme with a readable "index.theme"; empty when there is none.
  std::string FindIconThemeDir(const std::string& theme) const;

  // Appends the theme and, depth first, the themes that it inherits from. A theme that is already in the list is
  // skipped.
  void AddIconThemeChain(const std::string& theme);

  // The directories of the themes in search order: `IconThemeDirs`.
  const std::vector<std::string>& ThemeDirs() const { return theme_dirs_; }

 private:
  std::vector<std::string> base_dirs_;  // directories that contain themes
  std::vector<std::string> theme_dirs_;
};

}  // namespace qel
