#include "session/process_memory.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace qel::test {

std::filesystem::path ProcFolder(pid_t pid) {
  return std::filesystem::path("/proc") / std::to_string(pid);
}

std::map<std::string, long> ReadNumbers(const std::filesystem::path& path) {
  std::map<std::string, long> numbers;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      numbers[line.substr(0, colon)] = std::strtol(line.c_str() + colon + 1, nullptr, 10);
    }
  }
  return numbers;
}

Memory MemoryOf(pid_t pid) {
  sync();  // otherwise pages of a new executable, which are not on disk yet, would count as dirty
  auto numbers = ReadNumbers(ProcFolder(pid) / "smaps_rollup");
  return {numbers["Pss"], numbers["Private_Dirty"], ReadNumbers(ProcFolder(pid) / "status")["VmHWM"]};
}

void ResetPeak(pid_t pid) {
  std::ofstream(ProcFolder(pid) / "clear_refs") << 5;
}

}  // namespace qel::test
