#include "host/icon_file.h"

#include <png.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace qel::host {
namespace {

bool SavePixels(const Icon& icon, const std::string& path, std::string& error) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = icon.width;
  image.height = icon.height;
  // Little-endian ARGB words are blue, green, red, alpha in memory.
  image.format = PNG_FORMAT_BGRA;
  if (static_cast<std::uint64_t>(icon.width) * icon.height * 4 != icon.ByteCount()) {
    error = "the icon's bytes do not fit its size";
    return false;
  }
  if (png_image_write_to_file(&image, path.c_str(), 0, icon.bytes->data(), 0, nullptr) != 0) return true;
  error = Format("cannot write %s: %s", path.c_str(), image.message);
  return false;
}

}  // namespace

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
  if (icon.argb) return SavePixels(icon, path, error);
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(icon.bytes->data()), static_cast<std::streamsize>(icon.bytes->size()));
  file.close();
  if (file) return true;
  error = Format("cannot write %s: %s", path.c_str(), std::strerror(errno));
  return false;
}

}  // namespace qel::host
