#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <utility>

#include "log/log.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

// The directory exists until the process ends, so that lines written after a test do not go elsewhere.
const std::filesystem::path& LogPath() {
  static const TempDir directory;
  static const std::filesystem::path path = directory.Path() / "corvessan.log";
  return path;
}

// Checks that level and module of a line fit its text.
void ExpectFitting(const LogCapture::Line& line) {
  std::string_view text = line.text;
  // The one warning that is logged at level "information".
  if (text.empty() || text.starts_with("Warning: DBUS_SESSION_BUS_ADDRESS is not set")) {
    return;
  }
  char level = 'I';
  for (const std::string_view prefix : {"Error: ", "Warning: "}) {
    if (text.starts_with(prefix)) {
      level = prefix == "Error: " ? 'F' : 'W';
      text.remove_prefix(prefix.size());
    }
  }
  EXPECT_EQ(line.level, level) << line.text;
  static constexpr std::pair<std::string_view, const char*> kSpeakers[] = {
      {"Tools Service: ", "QelCC"}, {"QelSem", "QelCC"},        {"Can't open /proc/", "QelCCBase"},
      {"GLib API ", "QelCCBase"},   {"DBus lib ", "QelCCBase"}, {"Host command ", "qeltdl"}};
  for (const auto& [beginning, module] : kSpeakers) {
    EXPECT_TRUE(!text.starts_with(beginning) || line.module == module) << line.module << ": " << line.text;
  }
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
  for (const Line& line : Lines()) {
    ExpectFitting(line);
  }
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
  std::ifstream file(LogPath(), std::ios::binary);
  file.seekg(static_cast<std::streamoff>(start_));
  std::vector<Line> lines;
  for (std::string line; std::getline(file, line);) {
    if (file.eof()) {
      break;  // still being written
    }
    // "11-22 22:13:00.123 I /QelCC:<pid>:<tid>/ text"
    const std::size_t slash = line.find('/');
    const std::size_t colon = line.find(':', slash);
    const std::size_t text = line.find("/ ", colon);
    if (text == std::string::npos || slash < 2) {
      lines.push_back({' ', {}, line});  // no prefix: the previous text ended with a newline
    } else {
      lines.push_back({line[slash - 2], line.substr(slash + 1, colon - slash - 1), line.substr(text + 2)});
    }
  }
  return lines;
}

std::vector<std::string> LogCapture::Texts() const {
  std::vector<std::string> texts;
  std::ranges::transform(Lines(), std::back_inserter(texts), &Line::text);
  return texts;
}

int LogCapture::Count(std::string_view text) const {
  return static_cast<int>(std::ranges::count(Texts(), text));
}

}  // namespace qel::test
