// Menu definitions with any content. The input is used as the menu file and as the file "merged.menu".
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "appmenu/applications_menu.h"
#include "log/log.h"

namespace {

// A directory with the menu file and two applications.
class Desktop {
 public:
  Desktop() {
    std::string name = (std::filesystem::temp_directory_path() / "menu_fuzz.XXXXXX").string();
    root_ = mkdtemp(name.data());
    std::filesystem::create_directories(root_ + "/menus/applications-merged");
    std::filesystem::create_directories(root_ + "/applications");
    std::ofstream(root_ + "/applications/one.desktop") << "[Desktop Entry]\nName=One\nCategories=Game;\n";
    std::ofstream(root_ + "/applications/two.desktop") << "[Desktop Entry]\nName=Two\nCategories=Office;\n";
    std::filesystem::create_symlink("applications.menu", root_ + "/menus/merged.menu");
    setenv("XDG_CONFIG_DIRS", root_.c_str(), 1);
    setenv("XDG_DATA_DIRS", root_.c_str(), 1);
    unsetenv("XDG_MENU_PREFIX");
    // Discards the log. If the directory had no log file, the log would move to the user's home.
    std::filesystem::create_symlink("/dev/null", root_ + "/corvessan.log");
    qel::SetLogDirectory(root_.c_str());
  }
  ~Desktop() { std::filesystem::remove_all(root_); }
  Desktop(const Desktop&) = delete;
  Desktop& operator=(const Desktop&) = delete;

  void WriteMenu(std::string_view text) const {
    std::ofstream(root_ + "/menus/applications.menu", std::ios::binary) << text;
  }

 private:
  std::string root_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Desktop desktop;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (text.find("Dir>/") != std::string_view::npos) {
    return 0;  // would search directories of this machine, whose content does not depend on the input
  }
  desktop.WriteMenu(text);
  qel::DesktopEntryRegistry registry;
  const qel::MenuEntries menu = qel::LoadApplicationsMenu(registry, qel::DesktopKind::kGnome);
  for (const qel::MenuEntry& entry : menu) {
    if (!entry.menu_path.starts_with('/') || !registry.GetDesktopEntry(entry.id).allocated) {
      std::abort();
    }
  }
  return 0;
}
