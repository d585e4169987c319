// A directory for one test's files.
#pragma once

#include <filesystem>
#include <string_view>

namespace qel::test {

// Made under the system's temporary directory, removed with everything in it.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return path_; }

  // Writes a file at a path relative to the directory, making the directories on the way. Returns its full path.
  std::filesystem::path Write(const std::filesystem::path& file, std::string_view content) const;

 private:
  std::filesystem::path path_;
};

}  // namespace qel::test
