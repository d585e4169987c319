// Converts texts between the locale's character set and the UTF-16LE of the gate's fixed text fields. The environment
// names the locale; it is looked at for each text. Any thread may call these functions; errors are logged.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace qel {

// Converts `text` into `destination` and fills the rest of it with zeros. A text that is too long, or that cannot be
// converted further, is cut there. The destination is not touched when iconv does not know the character set, or when
// no file can be opened just now to look it up.
void TextToUtf16(std::span<std::byte> destination, std::string_view text);

// Converts UTF-16LE up to its first zero character. After an error it returns what was converted before.
std::string TextFromUtf16(std::span<const std::byte> bytes);

}  // namespace qel
