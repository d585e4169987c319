// What /proc tells of a process's memory and threads.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>

namespace qel::test {

std::filesystem::path ProcFolder(pid_t pid);

// The numbers of a file with lines of a name, a colon and a number, in the file's units.
std::map<std::string, long> ReadNumbers(const std::filesystem::path& path);

// In KiB.
struct Memory {
  long proportional_kib;  // depends on who else uses the same libraries
  long dirty_kib;         // private and no file's
  long peak_kib;          // the most that was resident at any time, files included
};
Memory MemoryOf(pid_t pid);

// From now on the peak is that of the time from now on.
void ResetPeak(pid_t pid);

}  // namespace qel::test
