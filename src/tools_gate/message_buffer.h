// The tagged message buffer: the format of every structured message that crosses the Tools Gate, in either direction.
//
// A buffer is a prefix of its user's, a block header {payload size, magic, 0} and fields {data length, tag, index,
// data}, all of them 32-bit little-endian and without padding. A field may carry a complete buffer of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qel {

inline constexpr std::uint32_t kBbMagic = 0x1000;
inline constexpr std::uint32_t kBbMagicAlternative = 0xACDCBABA;  // accepted when reading, never written
inline constexpr std::uint32_t kBbHeaderSize = 12;
inline constexpr std::uint32_t kBbFieldHeaderSize = 12;

// Result codes.
enum BbResult : int {
  kBbSuccess = 0,
  kBbNoMemory = -2,     // out of memory, or a caller-owned buffer is full
  kBbBadHeader = -3,    // too short for a header, or a wrong magic
  kBbOutOfBounds = -4,  // the block or a field reaches beyond the received bytes
  kBbBadIndex = -5,     // a field's index is not the one expected
  kBbEnd = -7,          // there is no further field
  kBbBeyondEnd = -8,    // the position lies beyond the end of the block
};

// A buffer being composed or read. Composing owns its bytes until bbFree(); reading leaves them the caller's.
struct MessageBuffer {
  std::uint32_t index = 0;        // fields written, or the index expected of the current field
  std::uint32_t prefix_size = 0;  // bytes before the block header
  std::uint32_t position = 0;     // of the next field to write, or of the current field
  std::byte* data = nullptr;
  std::uint32_t capacity = 0;  // bytes allocated, or received
  bool caller_owned = false;   // never grown and never freed
};

// Composing. bbCompose() starts a buffer whose first `prefix_size` bytes are the caller's to fill. bbPut() appends a
// field; a null `data` leaves its bytes to be filled in place. Both return kBbSuccess or kBbNoMemory, the latter with
// nothing changed.
[[nodiscard]] int bbCompose(MessageBuffer& buffer, std::uint32_t prefix_size);
[[nodiscard]] int bbPut(MessageBuffer& buffer, const void* data, std::uint32_t length, std::uint32_t tag);

// Composing where the size is known ahead. bbComposeSized() starts a buffer with room for exactly `fields_size` bytes
// of fields (with their headers); bbComposeIn() starts one without a prefix in bytes of the caller's, typically those
// of an outer buffer's field.
[[nodiscard]] int bbComposeSized(MessageBuffer& buffer, std::uint32_t prefix_size, std::uint32_t fields_size);
[[nodiscard]] int bbComposeIn(MessageBuffer& buffer, std::span<std::byte> place);

// The finished buffer, prefix included.
std::byte* bbData(const MessageBuffer& buffer);
std::uint32_t bbSize(const MessageBuffer& buffer);
void bbFree(MessageBuffer& buffer);

// Reading. bbAttach() checks the block and stands on its first field; bbNext() goes on to the next. Both return
// kBbSuccess, or kBbEnd when there is no (further) field, or the code of what is wrong.
[[nodiscard]] int bbAttach(MessageBuffer& buffer, std::span<const std::byte> received, std::uint32_t prefix_size);
[[nodiscard]] int bbNext(MessageBuffer& buffer);
std::uint32_t bbFieldLength(const MessageBuffer& buffer);
std::uint32_t bbFieldTag(const MessageBuffer& buffer);
std::span<const std::byte> bbFieldData(const MessageBuffer& buffer);

// Frees a composed buffer at the end of a scope.
class MessageBufferOwner {
 public:
  explicit MessageBufferOwner(MessageBuffer& buffer) : buffer_(buffer) {}
  ~MessageBufferOwner() { bbFree(buffer_); }
  MessageBufferOwner(const MessageBufferOwner&) = delete;
  MessageBufferOwner& operator=(const MessageBufferOwner&) = delete;

 private:
  MessageBuffer& buffer_;
};

}  // namespace qel
