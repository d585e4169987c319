// Composes a message buffer field by field.
//
// The first failure is kept, and every call after it does nothing: a sender puts all fields and asks once, at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

#include "tools_gate/message_buffer.h"

namespace qel {

// Owns the composed bytes. For one thread.
class MessageComposer {
 public:
  // Starts a buffer with a prefix of `prefix_size` zero bytes.
  explicit MessageComposer(std::uint32_t prefix_size);

  // Each adds one field; the data is copied. Texts have no terminator; numbers stand one behind the other.
  void Put(std::span<const std::byte> data, std::uint32_t tag);
  void PutText(std::string_view text, std::uint32_t tag);
  void PutNumbers(std::initializer_list<std::uint32_t> numbers, std::uint32_t tag);

  // A field that is a message buffer itself, whose first failure becomes this one's.
  void Put(const MessageComposer& inner, std::uint32_t tag);

  // False when not even the prefix could be had.
  bool IsStarted() const { return buffer_.data != nullptr; }

  // kBbSuccess, or what the first call that failed returned.
  int Result() const { return result_; }

  // The buffer with its prefix, which the sender may fill in now. Only after a success, and until the next field.
  std::span<std::byte> Bytes() const { return {bbData(buffer_), bbSize(buffer_)}; }

 private:
  MessageBuffer buffer_;
  int result_;
};

}  // namespace qel
