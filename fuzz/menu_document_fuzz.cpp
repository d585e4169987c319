// Menu definitions with any content.
//
// The input has three parts, separated by NUL bytes: the content of a menu, a menu file to merge, and a desktop entry.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/applications_menu.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"

namespace {

using qel::fuzz::Expect;

const std::string kMenu = "/conf/menus/applications.menu";
const std::string kMerged = "/conf/menus/merged.xml";

struct Input {
  std::string content;
  std::string merged_file;
  std::string entry;
};

struct Outcome {
  std::vector<std::pair<std::string, std::string>> placements;  // id and menu
  bool is_complete = false;                                     // nothing was left out because of a limit
  bool asked_for_merged = false;
};

// Loads a menu from this file and, if `merged` is not empty, a file of the same folder.
Outcome Load(const Input& input, const std::string& top, const std::string& merged) {
  qel::fuzz::FileTree tree(kMerged);
  tree.AddFile(kMenu, top);
  if (!merged.empty()) {
    tree.AddFile(kMerged, merged);
  }
  tree.AddFile("/conf/menus/applications-merged/m.menu", input.merged_file);
  tree.AddFile("/data/applications/one.desktop", "[Desktop Entry]\nName=One\nCategories=Game;\n");
  tree.AddFile("/data/applications/sub/two.desktop", "[Desktop Entry]\nName=Two\nCategories=Office;X\n");
  tree.AddFile("/data/applications/three.desktop", input.entry);
  tree.AddFile("/data/desktop-directories/a.directory", "[Desktop Entry]\nName=A\n");
  tree.AddFile("/conf/menus/applications/four.desktop", "[Desktop Entry]\nName=Four\nCategories=Game\n");
  qel::fuzz::TakeLog();
  qel::DesktopEntryRegistry registry;
  const qel::MenuEntries menu =
      qel::LoadApplicationsMenu(registry, qel::DesktopKind::kGnome, {.system_menus = "/conf/none"});
  Outcome outcome;
  for (const qel::MenuEntry& entry : menu) {
    Expect(entry.menu_path.starts_with('/'), "a menu has a path");
    Expect(registry.GetDesktopEntry(entry.id).allocated, "an entry in a menu is marked");
    outcome.placements.emplace_back(entry.id, entry.menu_path);
  }
  Expect(std::ranges::is_sorted(outcome.placements, {}, [](const auto& entry) { return entry.first; }),
         "the entries are sorted by id");
  outcome.is_complete = qel::fuzz::TakeLog().find(" W /") == std::string::npos;
  outcome.asked_for_merged = tree.WasAsked();
  return outcome;
}

std::string Menu(const std::string& content) {
  return "<Menu>" + content + "</Menu>";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("XDG_CONFIG_DIRS", "/conf", 1);
  setenv("XDG_DATA_DIRS", "/data", 1);
  unsetenv("XDG_MENU_PREFIX");
  qel::fuzz::TakeLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData parts(data, size);
  Input input;
  input.content = parts.Text('\0');
  input.merged_file = parts.Text('\0');
  input.entry = parts.Rest();

  const Outcome direct = Load(input, Menu("<Name>Top</Name>" + input.content), {});
  const Outcome merged = Load(input, Menu("<MergeFile>merged.xml</MergeFile><Name>Top</Name>"), Menu(input.content));
  // A menu that names the merged file would contain it a second time.
  if (direct.is_complete && merged.is_complete && !direct.asked_for_merged) {
    Expect(direct.placements == merged.placements, "a merged file gives the same as its content in its place");
  }
  return 0;
}
