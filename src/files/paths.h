// The base directory lists of the desktop, and small operations on path texts.
//
// Nothing here keeps state; everything may be called from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace qel {

// Cuts a text at every delimiter. Empty fields between two delimiters are kept, a trailing delimiter gives no trailing
// empty field, and an empty text gives an empty list.
std::vector<std::string> SplitString(std::string_view text, char delimiter);

// Calls `use` with each of these fields, in order.
template <typename Use>
void ForEachField(std::string_view text, char delimiter, Use use) {
  while (!text.empty()) {
    const std::size_t end = text.find(delimiter);
    use(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
  }
}

// XDG_CONFIG_DIRS split at ":", as set at the time of the call; "/etc/xdg" when it is not set. Set but empty, it gives
// no directory.
std::vector<std::string> GetConfigDirs();

// XDG_DATA_DIRS in the same way; "/usr/local/share" and "/usr/share" when it is not set.
std::vector<std::string> GetDataDirs();

// The text before the last "/"; "/" when that is the first character, "." when there is none.
std::string DirName(std::string_view path);

// The last component without its last extension: "/a/b.c.desktop" gives "b.c".
std::string BaseNameNoExt(std::string_view path);

// Removes empty and "." components and resolves ".." ones by the text alone; the result is absolute, or empty when no
// component is left. A path whose ".." leads above its beginning is returned unchanged. A "/" behind a backslash does
// not end a component.
std::string NormalizePath(std::string_view path);

}  // namespace qel
