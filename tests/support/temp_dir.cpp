#include "support/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string>
#include <system_error>

namespace qel::test {

TempDir::TempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "qel-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
  }
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TempDir::Write(const std::filesystem::path& file, std::string_view content) const {
  std::filesystem::path full = path_ / file;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream stream(full, std::ios::binary);
  stream.exceptions(std::ios::failbit | std::ios::badbit);
  stream.write(content.data(), static_cast<std::streamsize>(content.size()));
  return full;
}

}  // namespace qel::test
