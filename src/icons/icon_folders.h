// The folders of an icon theme in the order in which they are searched.
//
// There are two layouts: contexts that hold sizes ("apps/48") and sizes that hold contexts ("48x48/apps"). The smallest
// size comes first; what "index.theme" says of the folders is not asked.
#pragma once

#include <string>
#include <vector>

namespace qel {

class IconFolderVisitor {
 public:
  // A folder that may hold icons, if it exists at all. True ends the walk.
  virtual bool Visit(const std::string& folder) = 0;

  // A directory that should have told its sizes could not be opened.
  virtual void CannotOpen(const std::string& directory) = 0;

 protected:
  ~IconFolderVisitor() = default;
};

// The folders of `directory` that are named by a size, in ascending order of size, "scalable" last. Names are built
// anew from the numbers that the entries' names begin with ("48", or "48x48" when one entry has an "x" behind its
// number), so a folder may not exist; each comes up once. Of more than 256 sizes the smallest are taken. Only
// CannotOpen() of the visitor is called.
std::vector<std::string> ListSizeDirs(const std::string& directory, IconFolderVisitor& visitor);

// Walks the folders of one theme; returns whether the visitor ended the walk.
bool WalkIconFolders(const std::string& theme_dir, IconFolderVisitor& visitor);

// The log line of a directory that could not be opened.
void LogCannotOpen(const std::string& directory);

}  // namespace qel
