// The log lines that this process writes while a test looks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qel::test {

// Sends the process's log into a temporary directory, where it stays until the process ends, and sets the threshold;
// the destructor puts the earlier threshold back. A capture sees the lines written since it was made; its end expects
// that the level of each agrees with its text: "Error: " and "Warning: " begin errors and warnings, and no other lines.
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

  // In the order in which they were written.
  std::vector<Line> Lines() const;
  // Their texts.
  std::vector<std::string> Texts() const;

  // How many lines have exactly this text.
  int Count(std::string_view text) const;
  bool Contains(std::string_view text) const { return Count(text) > 0; }

 private:
  std::int32_t earlier_level_;
  std::uintmax_t start_ = 0;  // size of the file when the capture began
};

}  // namespace qel::test
