// A simple reader of key files, with which the results of the real one are compared.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "files/key_file.h"

namespace qel::fuzz {

inline std::string_view WithoutSpaceBefore(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  return text;
}

// Takes the value of a line. `group` is the name of the line's group, and changes at a group header.
inline void TakeKeyFileLine(std::string_view line, std::string& group, KeyFileValues& values) {
  line = line.substr(0, line.find('\0'));
  std::string_view header = WithoutSpaceBefore(line);
  header = header.substr(0, header.find_last_not_of(" \t\n\v\f\r") + 1);
  if (header.size() >= 2 && header.starts_with('[') && header.ends_with(']')) {
    group = header.substr(1, header.size() - 2);
    return;
  }
  if (!values.contains(group)) {
    return;
  }
  for (auto& [key, value] : values[group]) {
    const std::string_view rest = line.starts_with(key) ? WithoutSpaceBefore(line.substr(key.size())) : "";
    if (rest.starts_with('=')) {
      value = WithoutSpaceBefore(rest.substr(1));
    }
  }
}

// Does what ReadKeyFile() does with a file of this content. The keys are plain text.
inline void ReadKeyFilePlainly(std::string_view content, KeyFileValues& values) {
  constexpr std::size_t kMaxPiece = 4095;
  std::string group = "\n";  // no group has this name
  while (!content.empty()) {
    const std::size_t newline = std::min(content.find('\n'), content.size() - 1);
    std::string_view line = content.substr(0, std::min(newline + 1, kMaxPiece));
    content.remove_prefix(line.size());
    if (line.ends_with('\n')) {
      line.remove_suffix(1);
    }
    TakeKeyFileLine(line, group, values);
  }
}

}  // namespace qel::fuzz
