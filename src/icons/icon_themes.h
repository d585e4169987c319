// Where icons lie on this system, and in which order the themes are searched.
#pragma once

#include <string>
#include <vector>

#include "desktop/desktop_kind.h"

namespace qel {

// Paths are joined from texts without being normalised, and compared as texts. Worker thread only.
class IconThemes {
 public:
  // Rebuilds the base directories and adds the themes of the user's current choice, with their ancestors and "hicolor".
  // Themes found by earlier discoveries stay where they are, before the new ones.
  void DiscoverIconThemes(DesktopKind kind);

  // The first theme directory of this name that has a readable "index.theme"; empty when there is none.
  std::string FindIconThemeDir(const std::string& theme) const;

  // Appends the theme and, depth first, what it inherits from. A theme that is in the list already is passed over.
  void AddIconThemeChain(const std::string& theme);

  // The directories of the themes, most preferred first: "IconThemeDirs".
  const std::vector<std::string>& ThemeDirs() const { return theme_dirs_; }

 private:
  std::vector<std::string> base_dirs_;  // directories that hold themes
  std::vector<std::string> theme_dirs_;
};

}  // namespace qel
