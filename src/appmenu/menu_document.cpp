#include "appmenu/menu_document.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "appmenu/paths.h"
#include "appmenu/regular_file.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr std::size_t kMaxMenuFile = std::size_t{16} << 20;
constexpr std::size_t kMaxBytes = std::size_t{24} << 20;
constexpr std::size_t kMaxMerges = 30'000;
constexpr std::size_t kMaxMergesOfOne = 2000;
constexpr std::size_t kMaxMergeChain = 32;
constexpr std::ptrdiff_t kMaxNamesOfOne = 3;
constexpr std::size_t kMaxNames = std::size_t{64} << 20;
constexpr std::size_t kElementCost = 256;  // bytes that an element takes up besides its text
constexpr std::size_t kMaxTexts = std::size_t{16} << 20;
constexpr int kMaxMenuDepth = 200;

// Set as a menu's `_private` when its submenus are folded, until something is added to it. Menus are folded with each
// menu above them again; the mark keeps that from walking the whole tree once per level.
char g_folded;

std::vector<std::string> WithSuffix(std::vector<std::string> directories, const char* suffix) {
  for (std::string& directory : directories) {
    directory += suffix;
  }
  return directories;
}

// A path as an element gives it, seen from the file that the element stands in.
std::string Resolve(const std::string& path, const std::string& current_file) {
  return path.starts_with('/') ? path : DirName(current_file) + '/' + path;
}

// Calls `use` with each child element; `use` may remove the element it is given and insert others before it.
template <typename Use>
void ForEachChildElement(xmlNode* menu, Use use) {
  for (xmlNode* child = menu->children; child != nullptr;) {
    xmlNode* const next = child->next;
    if (child->type == XML_ELEMENT_NODE) {
      use(child);
    }
    child = next;
  }
}

// Moves the child elements of a menu, except its names, to the end of another menu.
void MoveChildren(xmlNode* from, xmlNode* to) {
  ForEachChildElement(from, [&](xmlNode* child) {
    if (!IsElement(child, "Name")) {
      xmlUnlinkNode(child);
      xmlAddChild(to, child);
    }
  });
}

}  // namespace

std::string LocateMenuFile(DesktopKind desktop, const std::string& system_menus) {
  const char* prefix = std::getenv("XDG_MENU_PREFIX");
  for (const std::string& directory : GetConfigDirs()) {
    std::string path = directory + "/menus/" + (prefix != nullptr ? prefix : "") + "applications.menu";
    if (access(path.c_str(), R_OK) == 0) {
      return path;
    }
  }
  std::string fallback;
  if (desktop == DesktopKind::kKde) {
    fallback = system_menus + "/kde4-applications.menu";
  } else if (desktop == DesktopKind::kUnity) {
    fallback = system_menus + "/unity-lens-applications.menu";
  }
  return !fallback.empty() && access(fallback.c_str(), R_OK) == 0 ? fallback : std::string();
}

std::string MenuName(xmlNode* first_child) {
  const xmlNode* name = FindElement(first_child, "Name");
  return name != nullptr ? ElementText(name) : std::string();
}

void RemoveDuplicateElements(xmlNode* menu, const char* name) {
  std::set<std::string> seen;
  for (xmlNode* child = menu->last; child != nullptr;) {
    xmlNode* const previous = child->prev;
    if (IsElement(child, name) && !seen.insert(ElementText(child)).second) {
      RemoveNode(child);
    }
    child = previous;
  }
}

void FoldSubmenus(xmlNode* menu) {
  if (menu->_private == &g_folded) {
    return;
  }
  // Everything is moved before the submenus are folded, each of them once. Folding one after each addition would give
  // the same menu, in quadratic time.
  std::map<std::string, xmlNode*> by_name;
  for (xmlNode* child = menu->last; child != nullptr;) {
    xmlNode* const previous = child->prev;
    if (IsElement(child, "Menu")) {
      if (const std::string name = MenuName(child->children); !name.empty()) {
        const auto [recorded, is_new] = by_name.try_emplace(name, child);
        if (!is_new) {
          MoveChildren(child, recorded->second);
          recorded->second->_private = nullptr;
          RemoveNode(child);
        }
      }
    }
    child = previous;
  }
  for (const auto& [name, submenu] : by_name) {
    FoldSubmenus(submenu);
  }
  menu->_private = &g_folded;
}

MenuExpander::MenuExpander(FolderListings& listings)
    : listings_(listings),
      merge_dirs_(WithSuffix(GetConfigDirs(), "/menus/applications-merged")),
      app_dirs_(WithSuffix(GetDataDirs(), "/applications/")),
      directory_dirs_(WithSuffix(GetDataDirs(), "/desktop-directories")),
      bytes_(kMaxBytes, "too large menu files"),
      merges_(kMaxMerges, "too many merged menu files"),
      merges_of_one_(kMaxMergesOfOne, "too many menu files merged by one"),
      chain_(0, "too long a chain of merged menu files"),
      nesting_(0, "menus nested too deep"),
      names_(kMaxNames, "too many merged menu files and directories"),
      texts_(kMaxTexts, "too much text in entities") {
  for (const auto* directories : {&merge_dirs_, &app_dirs_}) {
    for (const std::string& directory : *directories) {
      listings_.Reserve(directory);
    }
  }
}

XmlDocument MenuExpander::ReadMenuFile(const std::string& path) {
  const auto [text, is_new] = file_texts_.try_emplace(path);
  if (is_new) {
    const std::size_t limit = std::min(kMaxMenuFile, bytes_.left());
    if (std::optional<std::string> content = ReadWholeFile(path, limit)) {
      text->second = std::move(*content);
    } else if (RegularFile(path).size() > limit) {
      bytes_.Refuse(path);
    }
  }
  return bytes_.Take(text->second.size(), path) ? ParseXml(text->second, path, texts_) : nullptr;
}

void MenuExpander::ExpandMenu(xmlNode* menu, std::vector<std::string>& file_stack) {
  if (depth_ == kMaxMenuDepth) {
    nesting_.Refuse(file_stack.back());
    RemoveNode(menu);
    return;
  }
  ++depth_;
  ExpandLevel(menu, file_stack);
  --depth_;
}

void MenuExpander::ExpandLevel(xmlNode* menu, std::vector<std::string>& file_stack) {
  ExpandMergeDirectories(menu, file_stack);
  RemoveDuplicateElements(menu, "MergeFile");
  ExpandMergeFiles(menu, file_stack);
  FoldSubmenus(menu);
  ExpandDefaultDirectories(menu);
  RemoveDuplicateElements(menu, "AppDir");
  RemoveDuplicateElements(menu, "DirectoryDir");
  RemoveDuplicateElements(menu, "Directory");
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (IsElement(child, "AppDir") || IsElement(child, "DirectoryDir")) {
      MakeAbsolute(child, file_stack.back());
    }
  });
}

void MenuExpander::ExpandMergeDirectories(xmlNode* menu, std::vector<std::string>& file_stack) {
  // What an earlier one brings is brought again by a later one, and then the earlier files are duplicates.
  RemoveDuplicateElements(menu, "DefaultMergeDirs");
  RemoveDuplicateElements(menu, "MergeDir");
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (IsElement(child, "DefaultMergeDirs")) {
      xmlNode* anchor = child;
      for (const std::string& directory : merge_dirs_) {
        anchor = ExpandMergeDir(anchor, directory, file_stack.back());
      }
      RemoveNode(child);
    } else if (IsElement(child, "MergeDir")) {
      ExpandMergeDir(child, ElementText(child), file_stack.back());
      RemoveNode(child);
    } else if (IsElement(child, "Menu")) {
      ExpandMenu(child, file_stack);
    }
  });
}

// Inserts a `MergeFile` before the anchor for each menu file below a directory. Returns the first one inserted, or the
// anchor when there is none.
xmlNode* MenuExpander::ExpandMergeDir(xmlNode* anchor, const std::string& directory, const std::string& current_file) {
  if (directory.empty()) {
    return anchor;
  }
  xmlNode* first = nullptr;
  for (const std::pmr::string& path : listings_.FindFiles(Resolve(directory, current_file), "*.menu")) {
    if (!names_.Take(path.size() + kElementCost, path)) {
      break;
    }
    xmlNode* const inserted = xmlAddPrevSibling(anchor, NewElement("MergeFile", std::string(path)));
    first = first != nullptr ? first : inserted;
  }
  return first != nullptr ? first : anchor;
}

void MenuExpander::ExpandMergeFiles(xmlNode* menu, std::vector<std::string>& file_stack) {
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (!IsElement(child, "MergeFile")) {
      return;
    }
    const std::string text = ElementText(child);
    if (!text.empty() && SpliceFile(child, Resolve(text, file_stack.back()), file_stack)) {
      RemoveNode(child);
    }
  });
}

// Copies what the first menu of a file holds, expanded, before the anchor. False when the file is left out.
bool MenuExpander::SpliceFile(xmlNode* anchor, const std::string& path, std::vector<std::string>& file_stack) {
  if (std::ranges::find(file_stack, path) != file_stack.end()) {
    return false;
  }
  const std::string normal = NormalizePath(path);
  const auto is_the_same = [&normal](const std::string& other) { return NormalizePath(other) == normal; };
  if (file_stack.size() > kMaxMergeChain || std::ranges::count_if(file_stack, is_the_same) >= kMaxNamesOfOne) {
    chain_.Refuse(path);
    return false;
  }
  if (file_stack.size() == 1) {
    merges_of_one_.Refill(kMaxMergesOfOne);
  }
  if (!merges_.Take(1, path) || !merges_of_one_.Take(1, path)) {
    return false;
  }
  const XmlDocument document = ReadMenuFile(path);
  if (document == nullptr) {
    LogError(kModuleAgent, "Error: Failed to parse XML");
    return false;
  }
  xmlNode* const merged = FindElement(xmlDocGetRootElement(document.get()), "Menu");
  if (merged != nullptr) {
    file_stack.push_back(path);
    ExpandLevel(merged, file_stack);
    ForEachChildElement(merged, [&](xmlNode* child) {
      if (!IsElement(child, "Name")) {
        xmlAddPrevSibling(anchor, xmlDocCopyNode(child, anchor->doc, /*recursive=*/1));
      }
    });
    file_stack.pop_back();
  }
  return true;
}

void MenuExpander::ExpandDefaultDirectories(xmlNode* menu) {
  // Puts one element per directory before the one that stands for all, the last directory first.
  const auto replace = [&](xmlNode* element, const char* name, const std::vector<std::string>& directories) {
    xmlNode* anchor = element;
    for (const std::string& directory : directories) {
      anchor = xmlAddPrevSibling(anchor, NewElement(name, directory));
    }
    RemoveNode(element);
  };
  // As with merged folders, only the last one makes a difference.
  RemoveDuplicateElements(menu, "DefaultAppDirs");
  RemoveDuplicateElements(menu, "DefaultDirectoryDirs");
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (IsElement(child, "DefaultAppDirs")) {
      replace(child, "AppDir", app_dirs_);
    } else if (IsElement(child, "DefaultDirectoryDirs")) {
      replace(child, "DirectoryDir", directory_dirs_);
    }
  });
}

void MenuExpander::MakeAbsolute(xmlNode* element, const std::string& current_file) {
  const std::string text = ElementText(element);
  if (text.empty() || text.front() == '/') {
    return;
  }
  const std::string absolute = Resolve(text, current_file);
  if (!names_.Take(absolute.size() + kElementCost, absolute)) {
    RemoveNode(element);
    return;
  }
  xmlNodeSetContent(element, nullptr);
  // As a text node: content given to xmlNodeSetContent() is taken for markup, in which "&" begins an entity.
  xmlAddChild(element, xmlNewText(reinterpret_cast<const xmlChar*>(absolute.c_str())));
}

}  // namespace qel
