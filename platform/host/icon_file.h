// Saves icons as files.
#pragma once

#include <string>

#include "host/notifications.h"

namespace qel::host {

// ".png" for pixels. For an image file, the extension for its first bytes: ".png", ".svg", ".xpm", ".ico", or ".bin".
std::string IconExtension(const Icon& icon);

// Saves pixels as a PNG file, and an image file unchanged. Returns false, with the reason in `error`, on failure.
bool SaveIcon(const Icon& icon, const std::string& path, std::string& error);

}  // namespace qel::host
