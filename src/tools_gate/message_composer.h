// Composes a message buffer field by field.
//
// The first error is kept, and all later calls do nothing. So a sender adds all fields and checks Result() once, at the
// end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

#include "tools_gate/message_buffer.h"

namespace qel {

// Owns the composed bytes. One thread at a time may use it.
class MessageComposer {
 public:
  // Starts a buffer with a prefix of `prefix_size` zero bytes.
  explicit MessageComposer(std::uint32_t prefix_size);

  // Each function adds one field and copies the data. Texts are stored without a terminating NUL, numbers as 32-bit
  // little-endian values without gaps.
  void Put(std::span<const std::byte> data, std::uint32_t tag);
  void PutText(std::string_view text, std::uint32_t tag);
  void PutNumbers(std::initializer_list<std::uint32_t> numbers, std::uint32_t tag);

  // A field that is a message buffer itself, whose first failure becomes this one's.
  void Put(const MessageComposer& inner, std::uint32_t tag);

  // False when there was no memory for the prefix.
  bool IsStarted() const { return buffer_.data != nullptr; }

  // kBbSuccess, or the error code of the first call that failed (BbResult).
  int Result() const { return result_; }

  // The buffer with its prefix, which the sender may fill now. Only while Result() is kBbSuccess; valid until the next
  // field is added.
  std::span<std::byte> Bytes() const { return {bbData(buffer_), bbSize(buffer_)}; }

 private:
  MessageBuffer buffer_;
  int result_;
};

}  // namespace qel
