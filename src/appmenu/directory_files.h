// What the directory files of a menu say: the names of its menus, and which of them are not shown.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "appmenu/load_budget.h"
#include "files/key_file.h"

namespace qel {

struct DirectoryFile {
  std::string name;  // empty when the file gives none
  bool no_display = false;
};

// Reads each file once, however often menus name it.
class DirectoryFiles {
 public:
  // The budget must outlive the object. Half of what is left of it now is not touched.
  explicit DirectoryFiles(LoadBudget& budget) : budget_(budget), limit_(budget.Half()) {}
  DirectoryFiles(const DirectoryFiles&) = delete;
  DirectoryFiles& operator=(const DirectoryFiles&) = delete;

  // The first file of a name that can be read in some directories. Null when there is none, or no budget left to find
  // it. The file stays as long as the object.
  const DirectoryFile* Find(const std::vector<std::string>& directories, const std::string& name);

 private:
  std::optional<DirectoryFile> Read(const std::string& path);

  LoadBudget& budget_;
  const LoadBudget::Amounts limit_;
  KeyFileValues values_{{"Desktop Entry", {{"Name", {}}, {"NoDisplay", {}}}}};  // of the file read last
  KeyFileReader reader_{values_};
  std::map<std::string, std::optional<DirectoryFile>> files_;  // by path; nothing: cannot be read
};

}  // namespace qel
