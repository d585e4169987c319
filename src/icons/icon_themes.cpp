#include "icons/icon_themes.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "files/key_file.h"
#include "files/paths.h"
#include "icons/icon_theme_name.h"
#include "log/log.h"

namespace qel {
namespace {

std::vector<std::string> FindBaseDirs(DesktopKind kind) {
  std::vector<std::string> dirs;
  if (const char* const variable = std::getenv("HOME")) {
    const std::string home = variable;
    const std::string kde_icons = home + "/.kde/share/icons";
    if (kind == DesktopKind::kKde && access(kde_icons.c_str(), X_OK) == 0) {
      dirs.push_back(kde_icons);
    }
    dirs.push_back(home + "/.icons");
  }
  for (const std::string& data_dir : GetDataDirs()) {
    dirs.push_back(data_dir + "/icons");
  }
  return dirs;
}

std::vector<std::string> ReadParents(const std::string& theme_dir) {
  KeyFileValues values{{"Icon Theme", {{"Inherits", ""}}}};
  ReadKeyFile(theme_dir + "/index.theme", values);
  return SplitString(values["Icon Theme"]["Inherits"], ',');
}

}  // namespace

std::string IconThemes::FindIconThemeDir(const std::string& theme) const {
  for (const std::string& base_dir : base_dirs_) {
    std::string dir = base_dir;
    dir.append("/").append(theme);
    if (access((dir + "/index.theme").c_str(), R_OK) == 0) {
      return dir;
    }
  }
  return {};
}

void IconThemes::AddIconThemeChain(const std::string& theme) {
  // Not recursive, because theme files can make the chain of inheritance as long as they like.
  std::vector<std::string> pending{theme};
  while (!pending.empty()) {
    std::string dir = FindIconThemeDir(pending.back());
    pending.pop_back();
    if (dir.empty() || std::ranges::find(theme_dirs_, dir) != theme_dirs_.end()) {
      continue;
    }
    std::vector<std::string> parents = ReadParents(dir);
    std::move(parents.rbegin(), parents.rend(), std::back_inserter(pending));  // the first parent is next
    theme_dirs_.push_back(std::move(dir));
  }
}

void IconThemes::DiscoverIconThemes(DesktopKind kind) {
  base_dirs_ = FindBaseDirs(kind);
  AddIconThemeChain(CurrentIconThemeName(kind));

  // Applications install their icons in "hicolor". So it is always the last theme, even if it is already in the list.
  const std::string hicolor = FindIconThemeDir("hicolor");
  if (!hicolor.empty() && (theme_dirs_.empty() || theme_dirs_.back() != hicolor)) {
    theme_dirs_.push_back(hicolor);
  }
  LogInfo(kModuleAgent, "Current order of icon themes dirs:");
  for (const std::string& dir : theme_dirs_) {
    LogInfo(kModuleAgent, " - %s", dir.c_str());
  }
}

}  // namespace qel
