// The search order of icon themes: the user's settings and the files "index.theme".
//
// The input has parts that are separated by NUL bytes: the settings file, then for each theme its name, a newline and
// the content of its "index.theme".
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/paths.h"
#include "icons/icon_themes.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"
#include "support/plain_key_file.h"

namespace {

using qel::fuzz::Expect;
using qel::fuzz::FileTree;
using qel::fuzz::UpToZero;

const std::vector<std::string> kBases{"/home/.kde/share/icons", "/home/.icons", "/data/icons", "/more/icons"};

std::string PlainValue(const std::string& content, const std::string& group, const std::string& key) {
  qel::KeyFileValues values{{group, {{key, ""}}}};
  qel::fuzz::ReadKeyFilePlainly(content, values);
  return values[group][key];
}

std::string PlainThemeDir(FileTree& tree, const std::string& theme) {
  const auto base = std::ranges::find_if(kBases, [&](const std::string& directory) {
    return tree.Find(UpToZero(directory + "/" + theme + "/index.theme")) != nullptr;
  });
  return base == kBases.end() ? "" : *base + "/" + theme;
}

// Recursive, like the definition of the order: a theme, then its first parent with its ancestors, and so on.
void AddPlainly(FileTree& tree, const std::string& theme, std::vector<std::string>& dirs) {
  const std::string dir = PlainThemeDir(tree, theme);
  if (dir.empty() || std::ranges::find(dirs, dir) != dirs.end()) {
    return;
  }
  dirs.push_back(dir);
  const FileTree::Node* const index = tree.Find(UpToZero(dir + "/index.theme"));
  if (index->is_folder) {
    return;
  }
  for (const std::string& parent : qel::SplitString(PlainValue(index->content, "Icon Theme", "Inherits"), ',')) {
    AddPlainly(tree, parent, dirs);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("HOME", "/home", 1);
  setenv("XDG_DATA_DIRS", "/data:/more", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const std::string settings = input.Text('\0');
  FileTree tree;
  tree.AddFile("/home/.kde/share/config/kdeglobals", settings);
  tree.AddFolder(kBases[0]);
  for (std::size_t i = 0; !input.IsEmpty(); ++i) {
    const std::string theme = input.Text('\0');
    const std::size_t newline = std::min(theme.find('\n'), theme.size());
    const std::string name = theme.substr(0, newline);
    if (!name.empty() && name.size() < 250 && name.find('/') == name.npos && name != "." && name != "..") {
      tree.AddFile(kBases[i % kBases.size()] + "/" + name + "/index.theme", theme.substr(newline));
    }
  }

  std::vector<std::string> expected;
  const std::string chosen = PlainValue(settings, "Icons", "Theme");
  AddPlainly(tree, chosen.empty() ? "hicolor" : chosen, expected);
  const std::string last = PlainThemeDir(tree, "hicolor");
  if (!last.empty() && (expected.empty() || expected.back() != last)) {
    expected.push_back(last);
  }
  qel::IconThemes themes;
  themes.DiscoverIconThemes(qel::DesktopKind::kKde);
  Expect(themes.ThemeDirs() == expected, "the themes are in the order of inheritance");

  // A settings store can return any text as the name of a theme.
  AddPlainly(tree, settings, expected);
  themes.AddIconThemeChain(settings);
  Expect(themes.ThemeDirs() == expected, "any text may be the name of a theme");
  return 0;
}
