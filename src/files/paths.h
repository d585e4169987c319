// The directory lists of the XDG Base Directory standard, and small functions for path names.
//
// No function keeps state or reads the file system. Any thread may call them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Splits a text at every delimiter. Empty fields before and between delimiters are kept. A delimiter at the end gives
// no further empty field. An empty text gives an empty list.
std::vector<std::string> SplitString(std::string_view text, char delimiter);

// Calls `use` with each field that SplitString() would return, in order.
template <typename Use>
void ForEachField(std::string_view text, char delimiter, Use use) {
  while (!text.empty()) {
    const std::size_t end = text.find(delimiter);
    use(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
  }
}

// The environment variable XDG_CONFIG_DIRS, split at ":"; "/etc/xdg" when it is not set. A variable that is set but
// empty gives an empty list.
std::vector<std::string> GetConfigDirs();

// XDG_DATA_DIRS in the same way; "/usr/local/share" and "/usr/share" when it is not set.
std::vector<std::string> GetDataDirs();

// The part of a path before its last "/". "/" when the only "/" is the first character, "." when there is none.
std::string DirName(std::string_view path);

// The last component without its last extension: "/a/b.c.desktop" gives "b.c".
std::string BaseNameNoExt(std::string_view path);

// Removes empty and "." components and resolves "..", without looking at the file system. The result begins with "/",
// or is empty when no component is left. When a ".." has no component before it, the path is returned unchanged. A "/"
// after a backslash does not end a component.
std::string NormalizePath(std::string_view path);

}  // namespace qel
