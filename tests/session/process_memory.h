// Data about memory and threads of a process from /proc.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>

namespace qel::test {

std::filesystem::path ProcFolder(pid_t pid);

// Reads a file whose lines have a name, a colon and a number. The units are those of the file.
std::map<std::string, long> ReadNumbers(const std::filesystem::path& path);

// Amounts in KiB.
struct Memory {
  long proportional_kib;  // depends on other users of the same libraries
  long dirty_kib;         // private memory that the process has changed
  long peak_kib;          // the highest resident memory, including mapped files
};
Memory MemoryOf(pid_t pid);

// Starts a new measurement of the peak.
void ResetPeak(pid_t pid);

}  // namespace qel::test
