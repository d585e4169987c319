// Texts between the locale's character set and the UTF-16LE of the gate's fixed text fields.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace qel {

// Converts `text` into `destination`, zero-filled behind it. A text too long for it, or one that cannot be converted
// further, is cut there and the reason logged. The destination stays as it is when the character set is unknown to
// iconv, or no file can be opened just now to find out.
void TextToUtf16(std::span<std::byte> destination, std::string_view text);

// Converts UTF-16LE up to its first zero character. What was converted before an error is returned; the error is
// logged.
std::string TextFromUtf16(std::span<const std::byte> bytes);

}  // namespace qel
