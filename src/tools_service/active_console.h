// Finds the active console: the virtual terminal, or another console, that the user of the machine sees.
#pragma once

#include <string>

namespace qel {

// The console name in a file such as "/sys/class/tty/console/active": its first five bytes up to the last digit in
// them. Empty when the file cannot be read or these bytes contain no digit.
std::string ReadActiveConsole(const std::string& path);

// The active console, for example "tty2", from the file `root`/console/active. When that file names "tty0", the
// kernel's alias of the foreground terminal, from the file `root`/tty0/active. Empty when it cannot be found.
std::string CurrentConsole(const std::string& root);

}  // namespace qel
