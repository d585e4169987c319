// A folder of files that goes with the test that made it.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "support/temp_dir.h"

namespace qel {

class TempTree : public test::TempDir {
 public:
  std::string root() const { return TempDir::Path().string(); }
  std::string Path(std::string_view name) const { return root() + "/" + std::string(name); }
  std::string Write(std::string_view name, std::string_view content) const {
    return TempDir::Write(std::filesystem::path(name), content).string();
  }
};

}  // namespace qel
