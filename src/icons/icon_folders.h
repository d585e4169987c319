// The folders of an icon theme in search order.
//
// There are two layouts: context folders with size folders ("apps/48"), and size folders with context folders
// ("48x48/apps"). The smallest size is searched first. The list of folders in "index.theme" is not used.
#pragma once

#include <string>
#include <vector>

namespace qel {

class IconFolderVisitor {
 public:
  // Called for each folder that may contain icons; the folder may not exist. Returns true to end the walk.
  virtual bool Visit(const std::string& folder) = 0;

  // A directory could not be opened to read its size folders.
  virtual void CannotOpen(const std::string& directory) = 0;

 protected:
  ~IconFolderVisitor() = default;
};

// The size folders of `directory`, in ascending order of size, "scalable" last. Their names are built from the numbers
// at the beginning of the entries' names ("48", or "48x48" for all if one entry has an "x" after its number), so a
// folder may not exist. Each folder occurs once. If there are more than 256 sizes, the smallest are used. "scalable" is
// only added with names of the second form. Of the visitor only CannotOpen() is called.
std::vector<std::string> ListSizeDirs(const std::string& directory, IconFolderVisitor& visitor);

// Calls the visitor for the folders of one theme. Returns whether the visitor has ended the walk.
bool WalkIconFolders(const std::string& theme_dir, IconFolderVisitor& visitor);

// Logs that a directory could not be opened.
void LogCannotOpen(const std::string& directory);

}  // namespace qel
