#include "host/icon_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>

#include "host/icon_image.h"

namespace qel::host {

std::string IconExtension(const Icon& icon) {
  if (icon.argb || icon.IsEmpty()) return ".png";
  const ByteView head = Slice(*icon.bytes, 0, 256);
  const std::string text = TextOf(head);
  if (text.rfind("\x89PNG", 0) == 0) return ".png";
  if (text.rfind("/* XPM", 0) == 0) return ".xpm";
  if (text.rfind(std::string("\0\0\1\0", 4), 0) == 0) return ".ico";
  if (text.find("<svg") != std::string::npos || text.rfind("<?xml", 0) == 0) return ".svg";
  return ".bin";
}

bool SaveIcon(const Icon& icon, const std::string& path, std::string& error) {
  if (icon.IsEmpty()) {
    error = "there is no icon";
    return false;
  }
  const std::string bytes = icon.argb ? EncodePng(icon.width, icon.height, *icon.bytes, error) : TextOf(*icon.bytes);
  if (bytes.empty()) return false;
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  file.close();
  if (file) return true;
  error = Format("cannot write %s: %s", path.c_str(), std::strerror(errno));
  return false;
}

}  // namespace qel::host
