// Icons in a small tree of random content, searched one by one, all at once, and by a simple search.
//
// The first byte selects the names; each three bytes after it add a file or folder to the tree.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "icons/icon_batch.h"
#include "icons/icon_folders.h"
#include "log/log.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"

namespace {

using qel::fuzz::Expect;
using qel::fuzz::FileTree;

const std::vector<std::string> kThemes{"/data/icons/a", "/data/icons/b", "/data/icons/gnome"};
const std::vector<std::string> kContexts{"apps",   "actions", "mimetypes", "categories",
                                         "places", "devices", "mimes",     "other"};
const std::vector<std::string> kSizes{
    "16", "48", "16x16", "048x48", "48y", "scalable", "-1", "+016", " 16x16@2x", "x", "99999999999999999999", "0x10"};
const std::vector<std::string> kFiles{"p.png",   "p.xpm", "p.svg",   "p",    "q.png",      "q.svg",
                                      "s/p.png", "s.png", "s/q.xpm", ".png", "default.svg"};
const std::vector<std::string> kNames{"q", "s/p", "s/q", "", "missing", "/data/p.png", "s/"};

template <typename Choices>
const std::string& Choose(const Choices& choices, std::size_t number) {
  return choices[number % choices.size()];
}

void AddNode(FileTree& tree, qel::fuzz::FuzzedData& input) {
  const std::uint8_t kind = input.Byte();
  const std::uint8_t place = input.Byte();
  const std::uint8_t file = input.Byte();
  const std::string& context = Choose(kContexts, place >> 4);
  const std::string& size = Choose(kSizes, place & 15);
  std::string path = Choose(kThemes, kind) + '/';
  path += (kind & 4) != 0 ? context + '/' + size : size + '/' + context;
  if ((kind & 8) != 0) {
    path = path.substr(0, path.rfind('/'));  // one level higher
  }
  if ((kind & 48) == 48) {
    path = "/usr/share/pixmaps";
  }
  if (file < 200) {
    path += '/' + Choose(kFiles, file);
  }
  if (file >= 230) {
    tree.AddFolder(path);
  } else {
    tree.AddFile(path, {.content = "x", .is_executable = (kind & 64) != 0, .is_readable = (kind & 128) == 0});
  }
}

bool IsSearchable(FileTree& tree, const std::string& path) {
  const FileTree::Node* const node = tree.Find(path);
  return node != nullptr && (node->is_folder || node->is_executable);
}

// The size folders: numbers at the beginning of the names, in order of size.
std::vector<std::string> SizesPlainly(FileTree& tree, const std::string& folder) {
  std::map<unsigned long, bool> sizes;
  bool has_x = false;
  const FileTree::Node* const node = tree.Find(folder);
  if (node == nullptr || !node->is_folder) {
    return {};
  }
  for (const std::string& name : tree.List(folder)) {
    char* end = nullptr;
    const unsigned long size = std::strtoul(name.c_str(), &end, 10);
    if (end != name.c_str()) {
      sizes[size] = true;
      has_x = has_x || *end == 'x';
    }
  }
  std::vector<std::string> folders;
  for (const auto& [size, known] : sizes) {
    const std::string number = std::to_string(size);
    folders.push_back(folder + '/' + number + (has_x ? 'x' + number : ""));
  }
  if (has_x && IsSearchable(tree, folder + "/scalable")) {
    folders.push_back(folder + "/scalable");
  }
  return folders;
}

std::string FilePlainly(FileTree& tree, const std::string& folder, const std::string& name) {
  for (const char* const extension : {".png", ".xpm", ".svg"}) {
    std::string path = folder + '/' + name + extension;
    if (const FileTree::Node* const node = tree.Find(path); node != nullptr && node->is_readable) {
      return path;
    }
  }
  return "";
}

// The folders of a theme in search order.
std::vector<std::string> FoldersPlainly(FileTree& tree, const std::string& theme) {
  std::vector<std::string> folders;
  bool has_context = false;
  for (std::size_t i = 0; i + 1 < kContexts.size(); ++i) {  // "other" is no context
    if (IsSearchable(tree, theme + '/' + kContexts[i])) {
      has_context = true;
      std::ranges::copy(SizesPlainly(tree, theme + '/' + kContexts[i]), std::back_inserter(folders));
    }
  }
  for (const std::string& size : has_context ? std::vector<std::string>() : SizesPlainly(tree, theme)) {
    for (std::size_t i = 0; i + 1 < kContexts.size(); ++i) {
      folders.push_back(size + '/' + kContexts[i]);
    }
  }
  return folders;
}

std::string InFoldersPlainly(FileTree& tree, const std::vector<std::string>& folders, const std::string& name) {
  for (const std::string& folder : folders) {
    if (std::string path = FilePlainly(tree, folder, name); !path.empty()) {
      return path;
    }
  }
  return "";
}

class PlainSearch {
 public:
  PlainSearch(FileTree& tree, const qel::IconThemes& themes) : tree_(tree) {
    for (const std::string& theme : themes.ThemeDirs()) {
      std::ranges::copy(FoldersPlainly(tree, theme), std::back_inserter(in_themes_));
    }
    if (tree.Find(kThemes[2] + "/index.theme") != nullptr) {
      in_fallbacks_ = FoldersPlainly(tree, kThemes[2]);
    }
    in_fallbacks_.push_back("/usr/share/pixmaps");
  }

  std::string Find(const std::string& name) const {
    if (name.starts_with('/')) {
      return name;
    }
    std::string path = InFoldersPlainly(tree_, in_themes_, name);
    path = path.empty() ? InFoldersPlainly(tree_, in_fallbacks_, name) : path;
    return path.empty() ? InFoldersPlainly(tree_, in_fallbacks_, "default") : path;
  }

 private:
  FileTree& tree_;
  std::vector<std::string> in_themes_;
  std::vector<std::string> in_fallbacks_;
};

// The log without the times at the beginning of its lines.
std::string Messages() {
  std::string messages;
  const std::string log = qel::fuzz::TakeLog();
  for (std::size_t begin = 0; begin < log.size();) {
    const std::size_t end = log.find('\n', begin) + 1;
    messages += log.substr(begin, end - begin).substr(19);
    begin = end;
  }
  return messages;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("HOME", "/home", 1);
  setenv("XDG_DATA_DIRS", "/data", 1);
  qel::SetLogLevel(qel::kLogInfo);
  qel::fuzz::TakeLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const std::uint8_t wanted = input.Byte();
  FileTree tree;
  tree.AddFile(kThemes[0] + "/index.theme", "[Icon Theme]\nInherits=b\n");
  tree.AddFile(kThemes[1] + "/index.theme", "");
  if ((wanted & 1) != 0) {
    tree.AddFile(kThemes[2] + "/index.theme", "");
  }
  while (!input.IsEmpty()) {
    AddNode(tree, input);
  }
  qel::IconThemes themes;
  themes.DiscoverIconThemes(qel::DesktopKind::kXfce);
  themes.AddIconThemeChain("a");
  std::vector<std::string> names{"p", "p"};
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    if ((wanted >> i & 1) != 0) {
      names.push_back(kNames[i]);
    }
  }
  const qel::IconFinder finder(themes);
  const qel::IconBatch batch(finder, names, "default");
  const PlainSearch plain(tree, themes);
  Messages();
  for (const std::string& name : names) {
    const std::string path = finder.FindIcon(name, "default");
    const std::string messages = Messages();
    Expect(path == plain.Find(name), "the simple search finds the same file");
    const FileTree::Node* const file = tree.Find(path);
    Expect(finder.LoadIconFile(name, "default").size() == (file != nullptr ? file->content.size() : 0),
           "the whole file is read");
    Messages();
    Expect(batch.FindIcon(name) == path, "the search for all names finds the same file");
    Expect(Messages() == messages, "the search for all names logs the same");
  }
  return 0;
}
