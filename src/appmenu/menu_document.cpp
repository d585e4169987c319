#include "appmenu/menu_document.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "files/find_files.h"
#include "files/paths.h"
#include "files/regular_file.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr std::size_t kMaxMenuFile = std::size_t{16} << 20;
constexpr std::size_t kElementCost = 256;   // bytes of memory for an element besides its text
constexpr std::int64_t kElementTime = 500;  // estimated nanoseconds
constexpr std::int64_t kFileTime = 50'000;  // estimated nanoseconds to open and parse a small file
constexpr int kMaxMenuDepth = 200;
constexpr std::ptrdiff_t kMaxNamesOfOne = 3;

std::vector<std::string> WithSuffix(std::vector<std::string> directories, const char* suffix) {
  for (std::string& directory : directories) {
    directory += suffix;
  }
  return directories;
}

// Resolves the path in an element relative to the directory of the file that contains the element.
std::string Resolve(const std::string& path, const std::string& current_file) {
  return path.starts_with('/') ? path : DirName(current_file) + '/' + path;
}

// Calls `use` with each child element. `use` may remove this element, and insert others before it.
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

std::size_t CountElements(const xmlNode* element) {
  std::size_t count = 1;
  for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
    count += child->type == XML_ELEMENT_NODE ? CountElements(child) : 0;
  }
  return count;
}

// Moves the child elements of a menu, except `Name` elements, to the end of another menu.
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
  std::map<std::string, xmlNode*> by_name;
  for (xmlNode* child = menu->last; child != nullptr;) {
    xmlNode* const previous = child->prev;
    if (IsElement(child, "Menu")) {
      if (const std::string name = MenuName(child->children); !name.empty()) {
        const auto [recorded, is_new] = by_name.try_emplace(name, child);
        if (!is_new) {
          MoveChildren(child, recorded->second);
          RemoveNode(child);
        }
      }
    }
    child = previous;
  }
  // Only now, because the loop above may move menus into these menus.
  ForEachChildElement(menu, [](xmlNode* child) {
    if (IsElement(child, "Menu")) {
      FoldSubmenus(child);
    }
  });
}

MenuExpander::MenuExpander(LoadBudget& budget)
    : budget_(budget),
      merge_dirs_(WithSuffix(GetConfigDirs(), "/menus/applications-merged")),
      app_dirs_(WithSuffix(GetDataDirs(), "/applications/")),
      directory_dirs_(WithSuffix(GetDataDirs(), "/desktop-directories")) {}

XmlDocument MenuExpander::ReadMenuFile(const std::string& path) {
  const auto [text, is_new] = file_texts_.try_emplace(path);
  if (is_new) {
    if (std::optional<std::string> content = ReadWholeFile(path, kMaxMenuFile)) {
      text->second = std::move(*content);
    } else if (RegularFile(path).size() > kMaxMenuFile) {
      budget_.Refuse(path);
    }
  }
  return budget_.TakeBytes(text->second.size(), path) ? ParseXml(text->second, path, budget_) : nullptr;
}

void MenuExpander::ExpandMenu(xmlNode* menu, std::vector<std::string>& file_stack) {
  if (depth_ == kMaxMenuDepth) {
    budget_.Refuse(file_stack.back());
    RemoveNode(menu);
    return;
  }
  ++depth_;
  ExpandMergeDirectories(menu, file_stack);
  RemoveDuplicateElements(menu, "MergeFile");
  ExpandMergeFiles(menu, file_stack);
  ExpandDefaultDirectories(menu);
  RemoveDuplicateElements(menu, "AppDir");
  RemoveDuplicateElements(menu, "DirectoryDir");
  RemoveDuplicateElements(menu, "Directory");
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (IsElement(child, "AppDir") || IsElement(child, "DirectoryDir")) {
      MakeAbsolute(child, file_stack.back());
    }
  });
  --depth_;
}

void MenuExpander::ExpandMergeDirectories(xmlNode* menu, std::vector<std::string>& file_stack) {
  // Only the last one of equal elements matters: it gives the same files again, and of equal files the last is used.
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

// Inserts a `MergeFile` element before the anchor for each menu file below a directory. Returns the first inserted
// element, or the anchor when there is none.
xmlNode* MenuExpander::ExpandMergeDir(xmlNode* anchor, const std::string& directory, const std::string& current_file) {
  if (directory.empty()) {
    return anchor;
  }
  xmlNode* first = nullptr;
  const std::string start = Resolve(directory, current_file);
  const auto [files, is_new] = merged_files_.try_emplace(start);
  if (is_new) {
    const LoadBudget::Share share(budget_);
    files->second = FindFiles(start, "*.menu", budget_.ForSearch());
  }
  for (const std::string& path : files->second) {
    if (!budget_.Spend(kElementTime, path) || !budget_.TakeBytes(path.size() + kElementCost, path)) {
      break;
    }
    xmlNode* const inserted = xmlAddPrevSibling(anchor, NewElement("MergeFile", path));
    first = first != nullptr ? first : inserted;
  }
  return first != nullptr ? first : anchor;
}

void MenuExpander::ExpandMergeFiles(xmlNode* menu, std::vector<std::string>& file_stack) {
  std::int64_t files_left = 0;
  ForEachChildElement(menu, [&](const xmlNode* child) { files_left += IsElement(child, "MergeFile") ? 1 : 0; });
  ForEachChildElement(menu, [&](xmlNode* child) {
    if (!IsElement(child, "MergeFile")) {
      return;
    }
    // Equal parts for all files that the top file merges, so that a bad file cannot use the budget of the others.
    const std::int64_t parts = file_stack.size() == 1 ? files_left + 1 : 1;
    const LoadBudget::Share share(budget_, budget_.Part(parts));
    --files_left;
    const std::string text = ElementText(child);
    if (!text.empty() && SpliceFile(child, Resolve(text, file_stack.back()), file_stack)) {
      RemoveNode(child);
    }
  });
}

// Inserts the expanded content of the first menu of a file before the anchor. Returns false when the file is left out.
bool MenuExpander::SpliceFile(xmlNode* anchor, const std::string& path, std::vector<std::string>& file_stack) {
  if (std::ranges::find(file_stack, path) != file_stack.end()) {
    return false;
  }
  const std::string normal = NormalizePath(path);
  const auto is_the_same = [&normal](const std::string& other) { return NormalizePath(other) == normal; };
  if (depth_ == kMaxMenuDepth || std::ranges::count_if(file_stack, is_the_same) >= kMaxNamesOfOne) {
    budget_.Refuse(path);
    return false;
  }
  if (!budget_.Spend(kFileTime, path)) {
    return false;
  }
  const XmlDocument document = ReadMenuFile(path);
  if (document == nullptr) {
    LogError(kModuleAgent, "Error: Failed to parse XML");
    LogInfo(kModuleAgent, "Menu file left out, because it is missing or malformed: '%s'", path.c_str());
    return false;
  }
  xmlNode* const merged = FindElement(xmlDocGetRootElement(document.get()), "Menu");
  if (merged != nullptr) {
    file_stack.push_back(path);
    ExpandMenu(merged, file_stack);
    file_stack.pop_back();
    // Each copied element costs as much as the original.
    if (!budget_.TakeNodes(CountElements(merged), path)) {
      return true;
    }
    ForEachChildElement(merged, [&](xmlNode* child) {
      if (!IsElement(child, "Name")) {
        xmlAddPrevSibling(anchor, xmlDocCopyNode(child, anchor->doc, /*recursive=*/1));
      }
    });
  }
  return true;
}

void MenuExpander::ExpandDefaultDirectories(xmlNode* menu) {
  // Replaces an element by one element for each directory, the last directory first.
  const auto replace = [&](xmlNode* element, const char* name, const std::vector<std::string>& directories) {
    xmlNode* anchor = element;
    for (const std::string& directory : directories) {
      anchor = xmlAddPrevSibling(anchor, NewElement(name, directory));
    }
    RemoveNode(element);
  };
  // As with merge directories, only the last one of equal elements matters.
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
  if (!budget_.TakeBytes(absolute.size() + kElementCost, absolute)) {
    RemoveNode(element);
    return;
  }
  xmlNodeSetContent(element, nullptr);
  // As a text node, because xmlNodeSetContent() parses its argument as markup, in which "&" begins an entity.
  xmlAddChild(element, xmlNewText(reinterpret_cast<const xmlChar*>(absolute.c_str())));
}

}  // namespace qel
