// A folder of files that goes with the test that made it.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace qel {

class TempTree {
 public:
  TempTree() {
    std::string name = (std::filesystem::temp_directory_path() / "appmenu.XXXXXX").string();
    root_ = mkdtemp(name.data());
  }
  ~TempTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  TempTree(const TempTree&) = delete;
  TempTree& operator=(const TempTree&) = delete;

  const std::string& root() const { return root_; }
  std::string Path(std::string_view name) const { return root_ + "/" + std::string(name); }

  // Writes a file, with the folders it needs; returns its path.
  std::string Write(std::string_view name, std::string_view content) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }

 private:
  std::string root_;
};

}  // namespace qel
