// Converts texts between the character set of the locale and UTF-16LE, which the fixed text fields of the gate use. The
// locale comes from the environment variables, which are read for each text. Any thread may call these functions;
// errors are logged.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace qel {

// Converts `text` to UTF-16LE in `destination` and fills the rest with zeros. The result is cut where the text does not
// fit, or cannot be converted further. The destination is unchanged when iconv does not know the character set, when
// the files for that cannot be opened at the moment, or when there is not enough memory.
void TextToUtf16(std::span<std::byte> destination, std::string_view text);

// Converts UTF-16LE up to its first zero character. After a conversion error it returns the text up to there; an empty
// text when there is no converter or not enough memory.
std::string TextFromUtf16(std::span<const std::byte> bytes);

}  // namespace qel
