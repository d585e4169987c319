// The tagged message buffer: the format of every structured message on the Tools Gate, in both directions.
//
// A buffer consists of a prefix, whose content the user of the buffer defines, a block header {payload size, magic, 0}
// and fields {data length, tag, index, data}. All numbers have 32 bits, little-endian, without padding. The data of a
// field may be a complete inner buffer.
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
  kBbNoMemory = -2,     // out of memory, or the size does not fit into 32 bits
  kBbBadHeader = -3,    // too short for a header, or a wrong magic
  kBbOutOfBounds = -4,  // the block or a field reaches beyond the received bytes
  kBbBadIndex = -5,     // a field's index is not the one expected
  kBbEnd = -7,          // there is no further field
  kBbBeyondEnd = -8,    // the position lies beyond the end of the block
};

// A buffer that is composed or read. A composed buffer owns its bytes and frees them in the destructor. The bytes of a
// buffer that is read belong to the caller. One thread at a time may use it.
struct MessageBuffer {
  std::uint32_t index = 0;        // number of fields written, or expected index of the current field
  std::uint32_t prefix_size = 0;  // bytes before the block header
  std::uint32_t position = 0;     // offset in bytes of the next field to write, or of the current field
  std::byte* data = nullptr;
  std::uint32_t capacity = 0;  // bytes allocated, or received
  bool caller_owned = false;   // being read: never grown and never freed

  MessageBuffer() = default;
  ~MessageBuffer();
  MessageBuffer(const MessageBuffer&) = delete;
  MessageBuffer& operator=(const MessageBuffer&) = delete;
};

// Composing. All sizes are in bytes. Most senders use MessageComposer, which keeps the first error.

// Starts a new buffer and frees the old one. The caller fills the `prefix_size` bytes at its beginning. Returns
// kBbSuccess or kBbNoMemory. The other composing functions may be called only after kBbSuccess.
[[nodiscard]] int bbCompose(MessageBuffer& buffer, std::uint32_t prefix_size);

// Appends a field with a copy of `data`. With a null `data` the bytes are not initialised, and the caller fills them in
// place. Returns kBbSuccess, or kBbNoMemory with the buffer unchanged. The bytes may move, so pointers that bbData()
// returned before become invalid.
[[nodiscard]] int bbPut(MessageBuffer& buffer, const void* data, std::uint32_t length, std::uint32_t tag);

// The finished buffer, prefix included, until the next field is put or the record ends.
std::byte* bbData(const MessageBuffer& buffer);
std::uint32_t bbSize(const MessageBuffer& buffer);

// Frees the bytes before the destructor does. A new buffer can then be composed or attached.
void bbFree(MessageBuffer& buffer);

// Reading.

// Starts reading `received`, which must outlive the use of the buffer, at its first field. Returns kBbSuccess, kBbEnd
// when there is no field, or an error code.
[[nodiscard]] int bbAttach(MessageBuffer& buffer, std::span<const std::byte> received, std::uint32_t prefix_size);

// Moves to the next field. Returns the same codes as bbAttach(). Must not be called after bbAttach() returned
// kBbBadHeader. When there is no valid current field, it returns the same code again.
[[nodiscard]] int bbNext(MessageBuffer& buffer);

// The current field: length in bytes, tag, and data (part of the received bytes). Only after bbAttach() or bbNext() has
// returned kBbSuccess.
std::uint32_t bbFieldLength(const MessageBuffer& buffer);
std::uint32_t bbFieldTag(const MessageBuffer& buffer);
std::span<const std::byte> bbFieldData(const MessageBuffer& buffer);

}  // namespace qel
