// Information from /proc about the process of a window. When /proc cannot be read, the result is empty or false;
// nothing is logged. Any thread may call these functions.
#pragma once

#include <cstdint>
#include <string>

namespace qel {

// The path of the executable. When it cannot be read, the name of the process (/proc/PID/comm).
std::string ExecutablePath(std::int32_t pid);

// Whether the windows of this process are never shown to the host, because it is a window manager, a desktop shell or
// panel, or another agent. Sets `is_window_manager`.
bool IsIgnoredProcess(std::int32_t pid, bool& is_window_manager);

// The text after the last '/'; the whole text when there is no '/'.
std::string BaseName(const std::string& path);

}  // namespace qel
