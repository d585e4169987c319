#include "host/icon_image.h"

#include <png.h>

#include "host/icon_file.h"
#include "host/xpm_image.h"

namespace qel::host {
namespace {

constexpr std::size_t kMostFileBytes = 2 << 20;
constexpr std::uint32_t kMostPixels = 2048;  // in a row, and in a column

std::optional<Image> PngImage(std::uint32_t width, std::uint32_t height, ByteView pixels) {
  std::string error;
  std::string bytes = EncodePng(width, height, pixels, error);
  if (bytes.empty()) return std::nullopt;
  return Image{"image/png", std::move(bytes)};
}

// A small PNG file can announce a size whose pixels fill the memory of the program that shows it.
bool IsHugePng(std::string_view file) {
  constexpr std::size_t kWidth = 16;
  const auto number = [&](std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = offset; i < offset + 4; ++i) value = value << 8 | static_cast<unsigned char>(file[i]);
    return value;
  };
  return file.size() < kWidth + 8 || number(kWidth) > kMostPixels || number(kWidth + 4) > kMostPixels;
}

}  // namespace

std::string EncodePng(std::uint32_t width, std::uint32_t height, ByteView pixels, std::string& error) {
  if (width == 0 || height == 0 || std::uint64_t{width} * height * 4 != pixels.size()) {
    error = "the icon's bytes do not fit its size";
    return {};
  }
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = width;
  image.height = height;
  // Little-endian ARGB words are blue, green, red, alpha in memory.
  image.format = PNG_FORMAT_BGRA;
  png_alloc_size_t size = PNG_IMAGE_PNG_SIZE_MAX(image);
  std::string bytes(size, '\0');
  if (png_image_write_to_memory(&image, bytes.data(), &size, 0, pixels.data(), 0, nullptr) == 0) {
    error = image.message;
    return {};
  }
  bytes.resize(size);
  return bytes;
}

std::optional<Image> ToImage(const Icon& icon) {
  if (icon.IsEmpty()) return std::nullopt;
  if (icon.argb) {
    if (icon.width > kMostPixels || icon.height > kMostPixels) return std::nullopt;
    return PngImage(icon.width, icon.height, *icon.bytes);
  }
  if (icon.ByteCount() > kMostFileBytes) return std::nullopt;
  std::string file = TextOf(*icon.bytes);
  const std::string extension = IconExtension(icon);
  if (extension == ".xpm") {
    const auto pixels = ReadXpm(file);
    return pixels ? PngImage(pixels->width, pixels->height, pixels->bytes) : std::nullopt;
  }
  if (extension == ".png" && !IsHugePng(file)) return Image{"image/png", std::move(file)};
  if (extension == ".svg") return Image{"image/svg+xml", std::move(file)};
  if (extension == ".ico") return Image{"image/x-icon", std::move(file)};
  return std::nullopt;
}

}  // namespace qel::host
