// Finds the menu definition file of the desktop, and expands it to a document that contains the whole menu
// (freedesktop.org Desktop Menu standard).
//
// Only one thread at a time may use this, because of libxml2.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/load_budget.h"
#include "appmenu/xml_tree.h"
#include "desktop/desktop_kind.h"

namespace qel {

// The path of the menu definition file: "menus/applications.menu", with XDG_MENU_PREFIX before the file name, in the
// first configuration directory where it can be read; otherwise, for KDE and Unity, their fallback file in
// `system_menus`. Empty when there is none.
std::string LocateMenuFile(DesktopKind desktop, const std::string& system_menus = "/etc/xdg/menus");

// The text of the first `Name` element among `first_child` and its following siblings; empty when there is none.
std::string MenuName(xmlNode* first_child);

// Removes each child element of a menu with the given name for which a later one has the same text.
void RemoveDuplicateElements(xmlNode* menu, const char* name);

// Combines child menus with the same name into one menu, at every level. The result is at the place of the last of
// them. It contains the children of the last menu, then those of the others, from the last to the first. Menus without
// a name are not combined. Only elements are moved, not white space or comments.
//
// This is done once, after all files are merged. The result is the same as with folding after each merge, but it takes
// linear time.
void FoldSubmenus(xmlNode* menu);

// Inserts merged files and directories into a menu, and replaces default directories by their paths.
//
// An expander is used for one load: each file is read once, even when it is merged several times, and each directory is
// searched once. It leaves out menus below a depth of 200 (each merged file counts as one level), files larger than 16
// MiB, and files that are already being merged under three other path names. All files that the top file merges get
// equal parts of the budget.
class MenuExpander {
 public:
  // The budget must outlive the expander and all documents.
  explicit MenuExpander(LoadBudget& budget);

  // Reads and parses a menu file. Returns null when that fails. When the file has more elements than the budget allows,
  // the document contains only the first of them.
  XmlDocument ReadMenuFile(const std::string& path);

  // Expands a `Menu` element with all its submenus in place. The last path in `file_stack` is the file of the element;
  // before it are the files that merge it. The stack is unchanged on return. Menus are not folded here.
  void ExpandMenu(xmlNode* menu, std::vector<std::string>& file_stack);

 private:
  void ExpandMergeDirectories(xmlNode* menu, std::vector<std::string>& file_stack);
  xmlNode* ExpandMergeDir(xmlNode* anchor, const std::string& directory, const std::string& current_file);
  void ExpandMergeFiles(xmlNode* menu, std::vector<std::string>& file_stack);
  bool SpliceFile(xmlNode* anchor, const std::string& path, std::vector<std::string>& file_stack);
  void ExpandDefaultDirectories(xmlNode* menu);
  void MakeAbsolute(xmlNode* element, const std::string& current_file);

  LoadBudget& budget_;
  const std::vector<std::string> merge_dirs_;
  const std::vector<std::string> app_dirs_;
  const std::vector<std::string> directory_dirs_;
  std::map<std::string, std::string> file_texts_;  // of the files read so far, by path; empty when unreadable
  std::map<std::string, std::vector<std::string>> merged_files_;  // menu files of the directories searched so far
  int depth_ = 0;                                                 // depth of the menu that is being expanded
};

}  // namespace qel
