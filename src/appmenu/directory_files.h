// What the directory files of a menu say: the names of its menus, and which of them are not shown.
#pragma once

#include <libxml/tree.h>

#include <cstddef>
#include <map>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "appmenu/allowance.h"
#include "appmenu/key_file.h"
#include "appmenu/regular_file.h"

namespace qel {

struct DirectoryFile {
  std::string name;  // empty when the file gives none
  bool no_display = false;
};

// The files that the `Directory` elements of an expanded menu name, each read once. No more than some 400,000 attempts
// to find them are made, fewer where their paths are long; what is left then is taken as not there, with a line in the
// log.
class DirectoryFiles {
 public:
  // Reads those of a menu and the menus below it.
  explicit DirectoryFiles(const xmlNode* menu);
  DirectoryFiles(const DirectoryFiles&) = delete;
  DirectoryFiles& operator=(const DirectoryFiles&) = delete;

  // Of a `Directory` element: the first file of its name that can be read in the directories which the `DirectoryDir`
  // elements before it give, those of the menus around it included. Null when there is none.
  const DirectoryFile* Of(const xmlNode* element) const;

 private:
  void LookUp(const xmlNode* menu);
  const DirectoryFile* Find(const std::string& name);
  const DirectoryFile* OpenOnce(const std::string& path);
  void ReadWaiting();
  void TakeValues(DirectoryFile& file);

  KeyFileValues values_;  // of the file read last
  KeyFileReader reader_{values_};
  FileOpener opener_;
  std::vector<std::string> directories_;  // in force where the look-up stands
  Allowance lookups_;
  std::map<std::string, std::pair<bool, DirectoryFile>> files_;  // by path; false: cannot be read
  std::vector<std::pair<RegularFile, DirectoryFile*>> waiting_;  // for the disk, not read yet
  std::unordered_map<const xmlNode*, const DirectoryFile*> by_element_;
};

}  // namespace qel
