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

// "11-22 22:13:00.123 I /QelCC:<pid>:<tid>/ text"
LogLine Parse(const std::string& line) {
  constexpr std::size_t kLevelPosition = 19;
  const std::size_t header = line.find('/');
  const std::size_t module_end = line.find(':', header);
  const std::size_t text = line.find("/ ", module_end);
  if (text == std::string::npos) {
    return {'?', "", line};
  }
  return {line[kLevelPosition], line.substr(header + 1, module_end - header - 1), line.substr(text + 2)};
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

std::vector<LogLine> LogCapture::Lines() const {
  std::ifstream file(LogPath(), std::ios::binary);
  file.seekg(static_cast<std::streamoff>(start_));
  std::vector<LogLine> lines;
  for (std::string line; std::getline(file, line);) {
    if (!file.eof()) {  // else still being written
      lines.push_back(Parse(line));
    }
  }
  return lines;
}

std::vector<std::string> LogCapture::Texts() const {
  std::vector<std::string> texts;
  for (LogLine& line : Lines()) {
    texts.push_back(std::move(line.text));
  }
  return texts;
}

int LogCapture::Count(std::string_view text) const {
  const std::vector<LogLine> lines = Lines();
  return static_cast<int>(std::ranges::count(lines, text, &LogLine::text));
}

}  // namespace qel::test
