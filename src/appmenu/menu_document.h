// Finding the desktop's menu definition and rewriting it until it describes the whole menu by itself.
//
// To be used from one thread at a time, as libxml2 is.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "appmenu/allowance.h"
#include "appmenu/find_files.h"
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
// held, then what the earlier ones did, from the last to the first. Menus without a name stay as they are. What a
// menu holds besides elements (white space, comments) is not moved.
void FoldSubmenus(xmlNode* menu);

// Splices merged files and folders into a menu and makes its directories explicit.
//
// An expander serves one load: each file is read once, however often it is merged. What no desktop needs is refused
// with a line in the log: menus below a depth of 200; files merged by a chain of more than 32, or of more than three
// names of one file; all after 30,000 merges, or 2,000 within one file that the menu file merges; files of more than
// 16 MiB, and those with which all together would have more than 24 MiB; names of merged files and directories that
// have more than 64 MiB together.
class MenuExpander {
 public:
  // The listings must outlive the expander.
  explicit MenuExpander(FolderListings& listings);

  // Reads and parses a menu file; nothing when that fails.
  XmlDocument ReadMenuFile(const std::string& path);

  // Expands a `Menu` element, with all menus below it, in place. The file stack holds the path of the file that the
  // element comes from, behind those of the files that are merging it; it is unchanged on return.
  void ExpandMenu(xmlNode* menu, std::vector<std::string>& file_stack);

 private:
  void ExpandLevel(xmlNode* menu, std::vector<std::string>& file_stack);
  void ExpandMergeDirectories(xmlNode* menu, std::vector<std::string>& file_stack);
  xmlNode* ExpandMergeDir(xmlNode* anchor, const std::string& directory, const std::string& current_file);
  void ExpandMergeFiles(xmlNode* menu, std::vector<std::string>& file_stack);
  bool SpliceFile(xmlNode* anchor, const std::string& path, std::vector<std::string>& file_stack);
  void ExpandDefaultDirectories(xmlNode* menu);
  void MakeAbsolute(xmlNode* element, const std::string& current_file);

  FolderListings& listings_;
  const std::vector<std::string> merge_dirs_;
  const std::vector<std::string> app_dirs_;
  const std::vector<std::string> directory_dirs_;
  std::map<std::string, std::string> file_texts_;  // of the files read so far, by path; empty when unreadable
  Allowance bytes_;                                // to be parsed
  Allowance merges_;                               // of files
  Allowance merges_of_one_;                        // within the one that the menu file merges now
  Allowance chain_;                                // nothing is taken of this and the next, they only refuse
  Allowance nesting_;
  Allowance names_;  // bytes of the names of files and directories that are put into menus
  Allowance texts_;  // see ParseXml()
  int depth_ = 0;    // of the menu being expanded
};

}  // namespace qel
