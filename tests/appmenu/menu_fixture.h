// A desktop's menu files and applications in a folder of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/applications_menu.h"
#include "log/log.h"
#include "temp_tree.h"

namespace qel {

class MenuTest : public testing::Test {
 protected:
  using Texts = std::vector<std::string>;

  MenuTest() {
    setenv("XDG_CONFIG_DIRS", tree_.Path("etc").c_str(), 1);
    setenv("XDG_DATA_DIRS", tree_.Path("share").c_str(), 1);
    unsetenv("XDG_MENU_PREFIX");
    SetLogDirectory(tree_.root().c_str());
  }

  void WriteApplication(const std::string& id, std::string_view lines) {
    tree_.Write("share/applications/" + id, "[Desktop Entry]\nName=" + id + "\n" + std::string(lines) + "\n");
  }

  // Writes the menu file: an "Apps" menu that uses the default directories and holds `content`.
  void WriteMenu(std::string_view content) {
    tree_.Write("etc/menus/applications.menu",
                "<!DOCTYPE Menu><Menu><Name>Apps</Name><DefaultAppDirs/><DefaultDirectoryDirs/>" +
                    std::string(content) + "</Menu>");
  }

  MenuEntries LoadEntries() {
    return LoadApplicationsMenu(*registry_, desktop_, {.observer = observer_, .system_menus = tree_.Path("system")});
  }

  // The menu as "ID PATH" lines.
  Texts Load() {
    Texts lines;
    for (const MenuEntry& entry : LoadEntries()) {
      lines.push_back(std::string(entry.id) + " " + std::string(entry.menu_path));
    }
    return lines;
  }

  // The menu that some rules make, loaded afresh.
  Texts LoadWith(std::string_view content) {
    registry_.emplace();
    WriteMenu(content);
    return Load();
  }

  bool IsLogged(std::string_view text) {
    std::ifstream log(tree_.Path("corvessan.log"));
    return std::string(std::istreambuf_iterator<char>(log), {}).find(text) != std::string::npos;
  }

  TempTree tree_;
  std::optional<DesktopEntryRegistry> registry_{std::in_place};
  DesktopKind desktop_ = DesktopKind::kGnome;
  MenuObserver* observer_ = nullptr;
};

}  // namespace qel
