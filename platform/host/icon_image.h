// Icons as images that every browser and toolkit shows.
#pragma once

#include <optional>
#include <string>

#include "host/notifications.h"

namespace qel::host {

struct Image {
  std::string type;  // "image/png", "image/svg+xml" or "image/x-icon"
  std::string bytes;
};

// Pixels (little-endian ARGB words) as a PNG file. Returns an empty text, and the reason in `error`, on failure.
std::string EncodePng(std::uint32_t width, std::uint32_t height, ByteView pixels, std::string& error);

// Pixels and XPM files become PNG files; files of other formats stay as they are, so their content is as untrusted as
// before. Returns std::nullopt for unknown formats, and for images that are damaged or far larger than an icon.
std::optional<Image> ToImage(const Icon& icon);

}  // namespace qel::host
