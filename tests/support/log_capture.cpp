#include "support/log_capture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "log/log.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

// Lives as long as the process, so that a line written after a test's end goes nowhere else.
const std::filesystem::path& LogPath() {
  static const TempDir directory;
  static const std::filesystem::path path = directory.Path() / "corvessan.log";
  return path;
}

}  // namespace

LogCapture::LogCapture(std::int32_t level) : earlier_level_(GetLogLevel()) {
  SetLogDirectory(LogPath().parent_path().c_str());
  SetLogLevel(level);
  std::error_code missing;
  const std::uintmax_t size = std::filesystem::file_size(LogPath(), missing);
  start_ = missing ? 0 : size;
}

LogCapture::~LogCapture() {
  SetLogLevel(earlier_level_);
}

std::vector<std::string> LogCapture::Texts() const {
  std::ifstream file(LogPath(), std::ios::binary);
  file.seekg(static_cast<std::streamoff>(start_));
  std::vector<std::string> texts;
  for (std::string line; std::getline(file, line);) {
    if (file.eof()) {
      break;  // still being written
    }
    // "11-22 22:13:00.123 I /QelCC:<pid>:<tid>/ text"
    const std::size_t header = line.find("/ ", line.find(':', line.find('/')));
    texts.push_back(header == std::string::npos ? line : line.substr(header + 2));
  }
  return texts;
}

int LogCapture::Count(std::string_view text) const {
  return static_cast<int>(std::ranges::count(Texts(), text));
}

}  // namespace qel::test
