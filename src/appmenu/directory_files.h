// Reads ".directory" files, which give menus their names and may hide them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "appmenu/load_budget.h"
#include "files/key_file.h"

namespace qel {

struct DirectoryFile {
  std::string name;  // empty when the file has no name
  bool no_display = false;
};

// Reads each file once, even when many menus name it. For one thread.
class DirectoryFiles {
 public:
  // The budget must outlive the object, which uses at most half of what is left of it now.
  explicit DirectoryFiles(LoadBudget& budget) : budget_(budget), limit_(budget.Half()) {}
  DirectoryFiles(const DirectoryFiles&) = delete;
  DirectoryFiles& operator=(const DirectoryFiles&) = delete;

  // Returns the first file with this name that can be read in one of the directories. Null when there is none, or when
  // the budget is used up. The result is valid as long as this object.
  const DirectoryFile* Find(const std::vector<std::string>& directories, const std::string& name);

 private:
  std::optional<DirectoryFile> Read(const std::string& path);

  LoadBudget& budget_;
  const LoadBudget::Amounts limit_;
  KeyFileValues values_{{"Desktop Entry", {{"Name", {}}, {"NoDisplay", {}}}}};  // of the last file
  KeyFileReader reader_{values_};
  std::map<std::string, std::optional<DirectoryFile>> files_;  // by path; nullopt: cannot be read
};

}  // namespace qel
