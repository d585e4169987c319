// Captures the log lines of this process for a test.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::test {

// Redirects the process's log to a temporary directory until the process ends, and sets the log level. A capture sees
// the lines that were written after its construction. The destructor restores the level, and expects that "Error: " and
// "Warning: " begin all errors and warnings, and no other lines.
class LogCapture {
 public:
  explicit LogCapture(std::int32_t level = 2);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  struct Line {
    char level;
    std::string module;
    std::string text;
  };

  // The lines in the order of writing.
  std::vector<Line> Lines() const;
  // The texts of the lines.
  std::vector<std::string> Texts() const;

  // The number of lines with exactly this text.
  int Count(std::string_view text) const;
  bool Contains(std::string_view text) const { return Count(text) > 0; }

 private:
  std::int32_t earlier_level_;
  std::uintmax_t start_ = 0;  // the size of the file at construction
};

}  // namespace qel::test
