#include "appmenu/command_line.h"

namespace qel {

std::vector<std::string> SplitCommandLine(std::string_view line) {
  std::vector<std::string> arguments;
  std::size_t start = 0;  // beginning of the current argument
  const auto append = [&](std::size_t end) {
    if (end > start) {
      arguments.emplace_back(line.substr(start, end - start));
    }
  };
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (line[at] == ' ') {
      append(at);
      start = at + 1;
    } else if (line[at] == '"') {
      std::size_t closing = line.find('"', at + 1);
      while (closing != std::string_view::npos && line[closing - 1] == '\\') {
        closing = line.find('"', closing + 1);
      }
      if (closing == std::string_view::npos) {
        return {};
      }
      arguments.emplace_back(line.substr(at + 1, closing - at - 1));
      at = closing;
      start = closing + 1;
    }
  }
  append(line.size());
  return arguments;
}

}  // namespace qel
