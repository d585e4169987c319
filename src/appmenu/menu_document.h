// Finding the desktop's menu definition and rewriting it until it describes the whole menu by itself.
//
// To be used from one thread at a time, as libxml2 is.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/load_budget.h"
#include "appmenu/xml_tree.h"
#include "desktop/desktop_kind.h"

namespace qel {

// The path of the menu definition: "menus/applications.menu", with XDG_MENU_PREFIX before the last component, in the
// first configuration directory where it may be read; failing that, the file that a KDE or Unity desktop has in
// `system_menus`. Empty when there is none.
std::string LocateMenuFile(DesktopKind desktop, const std::string& system_menus = "/etc/xdg/menus");

// The text of the first `Name` among an element's children, the first of which is given (null: it has none).
std::string MenuName(xmlNode* first_child);

// Removes all child elements of a menu that have the given name and the same text as a later one.
void RemoveDuplicateElements(xmlNode* menu, const char* name);

// Makes one menu of child menus with the same name, at every level: at the place of the last one, holding what that one
// held, then what the earlier ones did, from the last to the first. Menus without a name stay apart. What a menu holds
// besides elements (white space, comments) is not moved.
//
// Done once, when all files are merged: that gives what folding after each merge would, in linear time.
void FoldSubmenus(xmlNode* menu);

// Splices merged files and folders into a menu and makes its directories explicit.
//
// An expander serves one load: each file is read once, however often it is merged, and each folder searched once.
// Left out are menus below a depth of 200 (each file that merges another counts as one), files of more than 16 MiB, and
// files that are being merged under three other names. All files that the menu file merges get equal parts of the
// budget.
class MenuExpander {
 public:
  // The budget must outlive the expander and all documents.
  explicit MenuExpander(LoadBudget& budget);

  // Reads and parses a menu file; nothing when that fails. Of a file with too many elements, the first ones.
  XmlDocument ReadMenuFile(const std::string& path);

  // Expands a `Menu` element, with all menus below it, in place. The file stack holds the path of the file that the
  // element comes from, behind those of the files that are merging it; it is unchanged on return. Menus are not
  // folded.
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
  std::map<std::string, std::vector<std::string>> merged_files_;  // of the folders searched so far
  int depth_ = 0;                                                 // of the menu being expanded
};

}  // namespace qel
