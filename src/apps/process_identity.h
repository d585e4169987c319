// What /proc tells about the process that a window belongs to. An answer that cannot be had is empty or false; nothing
// is logged.
#pragma once

#include <cstdint>
#include <string>

namespace qel {

// The path of the executable; of a process whose path may not be read, its name.
std::string ExecutablePath(std::int32_t pid);

// Whether the process is one whose windows are never shown to the host: the window manager, desktop shells and panels,
// companion agents.
bool IsIgnoredProcess(std::int32_t pid, bool& is_window_manager);

// The text after the last '/', all of it without one.
std::string BaseName(const std::string& path);

}  // namespace qel
