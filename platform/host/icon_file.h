// Icons as files.
#pragma once

#include <string>

#include "host/notifications.h"

namespace qel::host {

// ".png" for pixels; for an image file what its first bytes tell (".png", ".svg", ".xpm", ".ico"), else ".bin".
std::string IconExtension(const Icon& icon);

// Pixels become a PNG file, an image file is written as it came. False and a reason where that fails.
bool SaveIcon(const Icon& icon, const std::string& path, std::string& error);

}  // namespace qel::host
