// Converts between UTF-8 and UTF-16LE, the encoding of fixed text fields.
#pragma once

#include <string>
#include <string_view>

#include "host/bytes.h"

namespace qel::host {

inline constexpr std::size_t kTextFieldSize = 522;  // bytes: 261 code units

// The text up to the first zero unit or the end of the field. Sets `problem` to a description of invalid content (a
// nonzero byte after the text, or a surrogate without its partner, which becomes U+FFFD); empty if there is none.
std::string DecodeTextField(ByteView field, std::string& problem);

// Converts `text` (UTF-8; invalid bytes become U+FFFD) to a field of `size` bytes. The rest is zero; a longer text is
// cut.
Bytes EncodeTextField(std::string_view text, std::size_t size = kTextFieldSize);

// How many bytes EncodeTextField() needs for the whole text.
std::size_t EncodedTextSize(std::string_view text);

}  // namespace qel::host
