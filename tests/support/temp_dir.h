// A temporary directory for the files of one test.
#pragma once

#include <filesystem>
#include <string_view>

namespace qel::test {

// The directory is in the system's temporary directory. The destructor removes it with its content.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }

  // Writes a file at a path relative to this directory, and creates missing directories. Returns the full path.
  std::filesystem::path Write(const std::filesystem::path& file, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

}  // namespace qel::test
