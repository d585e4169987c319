// Icon search in the installed themes: one icon, and the icons of a whole menu. Compared with simple methods and with
// GTK's icon theme.
//
// Packages: adwaita-icon-theme breeze-icon-theme papirus-icon-theme. A theme that is missing is reported as an error.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#ifdef QEL_BENCH_GTK
#include <gtk/gtk.h>
#endif

#include "icons/icon_batch.h"
#include "icons/icon_folders.h"
#include "icons/icon_lookup.h"

namespace qel {
namespace {

namespace fs = std::filesystem;

constexpr const char* kThemes[] = {"Adwaita", "breeze", "Papirus"};
constexpr const char* kIconDir = "/usr/share/icons/";
constexpr const char* kContexts[] = {"/apps", "/actions", "/mimetypes", "/categories", "/places", "/devices", "/mimes"};

// Finds the themes as if the user had chosen the given theme.
IconThemes Discover(const std::string& theme) {
  std::string home = (fs::temp_directory_path() / "icons-bench.XXXXXX").string();
  if (mkdtemp(home.data()) == nullptr) {
    std::abort();
  }
  fs::create_directories(home + "/.kde/share/config");
  std::ofstream(home + "/.kde/share/config/kdeglobals") << "[Icons]\nTheme=" << theme << "\n";
  setenv("HOME", home.c_str(), 1);
  setenv("XDG_DATA_DIRS", "/usr/share", 1);
  IconThemes themes;
  themes.DiscoverIconThemes(DesktopKind::kKde);
  fs::remove_all(home);
  return themes;
}

// The icon names of a menu: 300 names of applications that a theme has, and 40 names that no theme has.
const std::vector<std::string>& MenuNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> known;
    for (const char* const folder : {"Papirus/48x48/apps", "breeze/apps/48", "Adwaita/48x48/legacy"}) {
      std::error_code missing;
      for (const auto& file : fs::directory_iterator(std::string(kIconDir) + folder, missing)) {
        known.push_back(file.path().stem().string());
      }
    }
    std::ranges::sort(known);
    known.erase(std::unique(known.begin(), known.end()), known.end());
    std::vector<std::string> chosen;
    for (std::size_t i = 0; i < 300 && !known.empty(); ++i) {
      chosen.push_back(known[i * known.size() / 300]);
    }
    for (int i = 0; i < 40; ++i) {
      chosen.push_back("nobody-has-icon-" + std::to_string(i));
    }
    return chosen;
  }();
  return names;
}

struct IgnoreFailures final : qel::IconFolderVisitor {
  bool Visit(const std::string&) override { return false; }
  void CannotOpen(const std::string&) override {}
};

// The simple method: tries each name in each folder of the layout, size by size.
std::string ProbeTheme(const std::string& theme, const std::string& name) {
  IgnoreFailures visitor;
  bool has_context = false;
  for (const char* const context : kContexts) {
    const std::string dir = theme + context;
    if (access(dir.c_str(), X_OK) == 0) {
      has_context = true;
      for (const std::string& size : ListSizeDirs(dir, visitor)) {
        if (std::string path = FindIconFile(size, name); !path.empty()) {
          return path;
        }
      }
    }
  }
  if (!has_context) {
    for (const std::string& size : ListSizeDirs(theme, visitor)) {
      for (const char* const context : kContexts) {
        if (std::string path = FindIconFile(size + context, name); !path.empty()) {
          return path;
        }
      }
    }
  }
  return {};
}

std::string Probe(const IconThemes& themes, const std::string& name) {
  for (const std::string& theme : themes.ThemeDirs()) {
    if (std::string path = ProbeTheme(theme, name); !path.empty()) {
      return path;
    }
  }
  const std::string gnome = themes.FindIconThemeDir("gnome");
  std::string path = gnome.empty() ? "" : ProbeTheme(gnome, name);
  return path.empty() ? FindIconFile("/usr/share/pixmaps", name) : path;
}

// A simple method for all names at once: lists each folder, and keeps the first file of each name in a table.
class FullListing final : public IconFolderVisitor {
 public:
  bool Visit(const std::string& folder) override {
    if (DIR* const dir = opendir(folder.c_str())) {
      std::map<std::string, std::string> here;
      while (const dirent* const entry = readdir(dir)) {
        const fs::path file = entry->d_name;
        if (file.extension() == ".png" || file.extension() == ".xpm" || file.extension() == ".svg") {
          here.try_emplace(file.stem().string(), folder + "/" + entry->d_name);
        }
      }
      closedir(dir);
      first_.merge(here);
    }
    return false;
  }
  void CannotOpen(const std::string&) override {}

  std::size_t Count(const std::vector<std::string>& names) const {
    return static_cast<std::size_t>(std::ranges::count_if(names, [&](const auto& n) { return first_.contains(n); }));
  }

 private:
  std::map<std::string, std::string> first_;
};

// Only the system calls of FullListing.
class BareListing final : public IconFolderVisitor {
 public:
  bool Visit(const std::string& folder) override {
    if (DIR* const dir = opendir(folder.c_str())) {
      while (const dirent* const entry = readdir(dir)) {
        benchmark::DoNotOptimize(entry);
      }
      closedir(dir);
    }
    return false;
  }
  void CannotOpen(const std::string&) override {}
};

void WalkAll(const IconThemes& themes, IconFolderVisitor& visitor) {
  for (const std::string& theme : themes.ThemeDirs()) {
    WalkIconFolders(theme, visitor);
  }
  visitor.Visit(kPixmapsDir);
}

// Runs `work` on the theme list of a theme.
template <typename Work>
void Measure(benchmark::State& state, const char* theme, Work work) {
  if (!fs::exists(std::string(kIconDir) + theme)) {
    state.SkipWithError("the theme is not installed");
    return;
  }
  const IconThemes themes = Discover(theme);
  for (auto _ : state) {
    work(themes);
  }
}

#ifdef QEL_BENCH_GTK
GtkIconTheme* NewGtkTheme(const char* theme) {
  GtkIconTheme* const gtk = gtk_icon_theme_new();
  const char* path[] = {"/usr/share/icons", "/usr/share/pixmaps"};
  gtk_icon_theme_set_search_path(gtk, path, 2);
  gtk_icon_theme_set_custom_theme(gtk, theme);
  return gtk;
}

void GtkLookup(GtkIconTheme* gtk, const std::string& name) {
  GtkIconInfo* const info = gtk_icon_theme_lookup_icon(gtk, name.c_str(), 48, static_cast<GtkIconLookupFlags>(0));
  if (info != nullptr) {
    benchmark::DoNotOptimize(gtk_icon_info_get_filename(info));
    g_object_unref(info);
  }
}
#endif

void Register(const char* theme) {
  const auto add = [theme](const std::string& what, auto work) {
    benchmark::RegisterBenchmark((what + "/" + theme).c_str(), [theme, work](benchmark::State& state) {
      Measure(state, theme, work);
    })->Unit(benchmark::kMicrosecond);
  };
  for (const char* const name : {"folder", "firefox", "nobody-has-icon"}) {
    const std::string one = std::string("one:") + name;
    add(one + "/probing", [name](const IconThemes& themes) { benchmark::DoNotOptimize(Probe(themes, name)); });
    add(one + "/IconFinder", [name](const IconThemes& themes) {
      const IconFinder finder(themes);
      std::string path = finder.FindIconInAllThemes(name);
      benchmark::DoNotOptimize(path.empty() ? finder.FindIconFallback(name) : path);
    });
  }
  add("menu/probing", [](const IconThemes& themes) {
    for (const std::string& name : MenuNames()) {
      benchmark::DoNotOptimize(Probe(themes, name));
    }
  });
  add("menu/full listing", [](const IconThemes& themes) {
    FullListing listing;
    WalkAll(themes, listing);
    benchmark::DoNotOptimize(listing.Count(MenuNames()));
  });
  add("menu/bare listing", [](const IconThemes& themes) {
    BareListing listing;
    WalkAll(themes, listing);
  });
  add("menu/IconBatch", [](const IconThemes& themes) {
    const IconFinder finder(themes);
    benchmark::DoNotOptimize(IconBatch(finder, MenuNames(), ""));
  });
#ifdef QEL_BENCH_GTK
  add("one:firefox/GTK", [theme](const IconThemes&) {
    GtkIconTheme* const gtk = NewGtkTheme(theme);
    GtkLookup(gtk, "firefox");
    g_object_unref(gtk);
  });
  add("menu/GTK", [theme](const IconThemes&) {
    GtkIconTheme* const gtk = NewGtkTheme(theme);
    for (const std::string& name : MenuNames()) {
      GtkLookup(gtk, name);
    }
    g_object_unref(gtk);
  });
#endif
}

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  for (const char* const theme : qel::kThemes) {
    qel::Register(theme);
  }
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
