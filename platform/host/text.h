// UTF-16LE, the encoding of fixed text fields, to and from UTF-8.
#pragma once

#include <string>
#include <string_view>

#include "host/bytes.h"

namespace qel::host {

inline constexpr std::size_t kTextFieldSize = 522;  // bytes: 261 code units

// The text up to the first zero unit or the end of the field. `problem` says what a fixed field may not hold: a byte
// that is not zero behind the text, or a surrogate without its partner (shown as U+FFFD); empty if nothing.
std::string DecodeTextField(ByteView field, std::string& problem);

// `text` (UTF-8; broken bytes become U+FFFD) in a field of `size` bytes, zero-filled, cut where it does not fit.
Bytes EncodeTextField(std::string_view text, std::size_t size = kTextFieldSize);

// How many bytes EncodeTextField() needs to hold all of `text`.
std::size_t EncodedTextSize(std::string_view text);

}  // namespace qel::host
