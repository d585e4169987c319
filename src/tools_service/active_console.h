// Which virtual terminal, or other console, is in front of the machine's user.
#pragma once

#include <string>

namespace qel {

// The name in a file such as "/sys/class/tty/console/active": its first five bytes without what follows the last digit
// among them. Empty when the file cannot be read or holds no digit there.
std::string ReadActiveConsole(const std::string& path);

// The console in front, such as "tty2": what `root`/console/active names, and when that is the kernel's stand-in for
// the foreground terminal, "tty0", what `root`/tty0/active names. Empty when it cannot be told.
std::string CurrentConsole(const std::string& root);

}  // namespace qel
