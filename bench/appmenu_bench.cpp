// The time to load the applications menu, compared with only reading its files, and with another menu library.
//
// Argument 0 uses the real files of a desktop, which XDG_CONFIG_DIRS, XDG_DATA_DIRS and XDG_MENU_PREFIX select when the
// program is started. Other arguments are the number of generated entries. "Bare" only opens, reads and closes each
// file that the loader reads, and lists each folder. "Cold" removes the desktop files from the page cache before each
// round.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>
#ifdef QEL_HAVE_GARCON
#include <garcon/garcon.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "appmenu/applications_menu.h"
#include "appmenu/menu_document.h"
#include "files/find_files.h"
#include "files/paths.h"

namespace {

namespace fs = std::filesystem;

std::string Environment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// The files of a menu, with the environment variables that select them.
class MenuSet {
 public:
  explicit MenuSet(std::int64_t entries) {
    if (entries == 0) {
      config_dirs_ = real_config_dirs_;
      data_dirs_ = real_data_dirs_;
      prefix_ = real_prefix_;
      return;
    }
    std::string name = (fs::temp_directory_path() / "appmenu_bench.XXXXXX").string();
    root_ = mkdtemp(name.data());
    config_dirs_ = root_ + "/etc";
    data_dirs_ = root_ + "/share";
    Generate(static_cast<std::size_t>(entries));
  }
  ~MenuSet() {
    if (!root_.empty()) {
      fs::remove_all(root_);
    }
  }
  MenuSet(const MenuSet&) = delete;
  MenuSet& operator=(const MenuSet&) = delete;

  void Use() {
    Set("XDG_CONFIG_DIRS", config_dirs_);
    Set("XDG_DATA_DIRS", data_dirs_);
    Set("XDG_MENU_PREFIX", prefix_);
    if (files_.empty()) {
      Collect();
    }
  }

  const std::vector<std::string>& files() const { return files_; }
  const std::vector<std::string>& folders() const { return folders_; }

  void DropFromCache() const {
    sync();
    for (const std::string& path : files_) {
      const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
      posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
      close(file);
    }
  }

 private:
  static void Set(const char* name, const std::string& value) {
    value.empty() ? unsetenv(name) : setenv(name, value.c_str(), 1);
  }

  // Entries of 4 KB with translations, in 20 categories; one menu for 40 entries.
  void Generate(std::size_t entries) const {
    fs::create_directories(root_ + "/etc/menus");
    fs::create_directories(root_ + "/share/applications");
    fs::create_directories(root_ + "/share/desktop-directories");
    for (std::size_t i = 0; i < entries; ++i) {
      std::ofstream file(root_ + "/share/applications/org.example.application" + std::to_string(i) + ".desktop");
      file << "[Desktop Entry]\nType=Application\nName=Application " << i << "\nExec=application" << i
           << " %U\nIcon=application" << i << "\nCategories=GTK;C" << i % 20 << ";D" << i / 40 << ";\n";
      for (int language = 0; language < 60; ++language) {
        file << "Comment[l" << language << "]=What this application does for its users, in one language or another\n";
      }
    }
    std::ofstream menu(root_ + "/etc/menus/applications.menu");
    menu << "<!DOCTYPE Menu><Menu><Name>Applications</Name><DefaultAppDirs/><DefaultDirectoryDirs/>";
    for (std::size_t i = 0; i < std::min<std::size_t>(entries / 40, 500); ++i) {
      std::ofstream(root_ + "/share/desktop-directories/d" + std::to_string(i) + ".directory")
          << "[Desktop Entry]\nName=Menu " << i << "\n";
      menu << "<Menu><Name>M" << i << "</Name><Directory>d" << i << ".directory</Directory><Include><And><Category>D"
           << i << "</Category><Not><Category>C3</Category></Not></And><Filename>org.example.application" << i
           << ".desktop</Filename></Include></Menu>";
    }
    menu << "<Menu><Name>Other</Name><OnlyUnallocated/><Include><All/></Include></Menu></Menu>";
  }

  // Finds the files and folders that a load reads: the menu file, all desktop files, and the menu's directory files.
  void Collect() {
    std::set<std::string> folders;
    files_.push_back(qel::LocateMenuFile(qel::DesktopKind::kGnome));
    std::ifstream file(files_.front());
    const std::string menu(std::istreambuf_iterator<char>(file), {});
    for (const std::string& data : qel::GetDataDirs()) {
      for (const auto& path : qel::FindFiles(data + "/applications", "*.desktop")) {
        files_.emplace_back(path);
        folders.insert(fs::path(path).parent_path().string());
      }
      for (const auto& path : qel::FindFiles(data + "/desktop-directories", "*.directory")) {
        if (menu.find('>' + fs::path(path).filename().string() + '<') != std::string::npos) {
          files_.emplace_back(path);
        }
      }
    }
    folders_.assign(folders.begin(), folders.end());
  }

  static inline const std::string real_config_dirs_ = Environment("XDG_CONFIG_DIRS");
  static inline const std::string real_data_dirs_ = Environment("XDG_DATA_DIRS");
  static inline const std::string real_prefix_ = Environment("XDG_MENU_PREFIX");

  std::string root_;
  std::string config_dirs_;
  std::string data_dirs_;
  std::string prefix_;
  std::vector<std::string> files_;
  std::vector<std::string> folders_;
};

MenuSet& UseSet(benchmark::State& state) {
  static std::map<std::int64_t, std::unique_ptr<MenuSet>> sets;
  std::unique_ptr<MenuSet>& set = sets[state.range(0)];
  if (set == nullptr) {
    set = std::make_unique<MenuSet>(state.range(0));
  }
  set->Use();
  return *set;
}

void ReadBare(const MenuSet& set) {
  char buffer[32768];
  for (const std::string& path : set.folders()) {
    DIR* folder = opendir(path.c_str());
    while (const dirent* entry = readdir(folder)) {
      benchmark::DoNotOptimize(entry->d_name[0]);
    }
    closedir(folder);
  }
  for (const std::string& path : set.files()) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (read(file, buffer, sizeof buffer) == static_cast<ssize_t>(sizeof buffer)) {
    }
    close(file);
  }
}

// Loads the menu. Destroying the registry is not measured, because in the agent it lives as long as the process.
std::size_t LoadMenu(benchmark::State& state) {
  auto registry = std::make_unique<qel::DesktopEntryRegistry>();
  const std::size_t placements = qel::LoadApplicationsMenu(*registry, qel::DesktopKind::kGnome).size();
  state.PauseTiming();
  registry.reset();
  state.ResumeTiming();
  return placements;
}

void BM_Bare(benchmark::State& state) {
  const MenuSet& set = UseSet(state);
  for (auto _ : state) {
    ReadBare(set);
  }
}

void BM_Load(benchmark::State& state) {
  const MenuSet& set = UseSet(state);
  std::size_t placements = 0;
  for (auto _ : state) {
    placements = LoadMenu(state);
  }
  state.counters["files"] = static_cast<double>(set.files().size());
  state.counters["placements"] = static_cast<double>(placements);
}

void BM_ColdBare(benchmark::State& state) {
  const MenuSet& set = UseSet(state);
  for (auto _ : state) {
    state.PauseTiming();
    set.DropFromCache();
    state.ResumeTiming();
    ReadBare(set);
  }
}

void BM_ColdLoad(benchmark::State& state) {
  const MenuSet& set = UseSet(state);
  for (auto _ : state) {
    state.PauseTiming();
    set.DropFromCache();
    state.ResumeTiming();
    benchmark::DoNotOptimize(LoadMenu(state));
  }
}

BENCHMARK(BM_Bare)->Arg(0)->Arg(1000)->Arg(5000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Load)->Arg(0)->Arg(1000)->Arg(5000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ColdBare)->Arg(0)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ColdLoad)->Arg(0)->Arg(1000)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

#ifdef QEL_HAVE_GARCON
std::size_t CountItems(GarconMenu* menu) {
  GList* items = garcon_menu_get_elements(menu);
  std::size_t count = 0;
  for (const GList* item = items; item != nullptr; item = item->next) {
    count += GARCON_IS_MENU(item->data) ? CountItems(GARCON_MENU(item->data)) : 1;
  }
  g_list_free(items);  // the elements belong to the menu
  return count;
}

void BM_Garcon(benchmark::State& state) {
  UseSet(state);
  const std::string path = qel::LocateMenuFile(qel::DesktopKind::kGnome);
  std::size_t placements = 0;
  for (auto _ : state) {
    GarconMenu* menu = garcon_menu_new_for_path(path.c_str());
    if (garcon_menu_load(menu, nullptr, nullptr)) {
      placements = CountItems(menu);
    }
    g_object_unref(menu);
    state.PauseTiming();
    garcon_menu_item_cache_invalidate(GARCON_MENU_ITEM_CACHE(garcon_menu_item_cache_get_default()));
    state.ResumeTiming();
  }
  state.counters["placements"] = static_cast<double>(placements);
}

// Only one set can be used per run, because GLib caches the directory lists of its first call.
BENCHMARK(BM_Garcon)->Arg(0)->Unit(benchmark::kMillisecond);
#endif

}  // namespace

int main(int argc, char** argv) {
  mallopt(M_TRIM_THRESHOLD, 512 * 1024);  // the same setting as in the agent
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
