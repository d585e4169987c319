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
  kBbNoMemory = -2,     // out of memory, or more than 32 bits can count
  kBbBadHeader = -3,    // too short for a header, or a wrong magic
  kBbOutOfBounds = -4,  // the block or a field reaches beyond the received bytes
  kBbBadIndex = -5,     // a field's index is not the one expected
  kBbEnd = -7,          // there is no further field
  kBbBeyondEnd = -8,    // the position lies beyond the end of the block
};

// A buffer being composed or read. One that was composed owns its bytes and frees them in the end; one that is read
// leaves them the caller's. Each record is used by one thread at a time.
struct MessageBuffer {
  std::uint32_t index = 0;        // fields written, or the index expected of the current field
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

// Starts a buffer, in place of what the record held before. The `prefix_size` bytes at its beginning are the caller's
// to fill. Returns kBbSuccess or kBbNoMemory. All other calls need this one's success.
[[nodiscard]] int bbCompose(MessageBuffer& buffer, std::uint32_t prefix_size);

// Appends a field with a copy of `data`; with a null `data` its bytes are left to be filled in place. Returns
// kBbSuccess, or kBbNoMemory with nothing changed. The bytes may move: what bbData() returned before is not valid any
// more.
[[nodiscard]] int bbPut(MessageBuffer& buffer, const void* data, std::uint32_t length, std::uint32_t tag);

// The finished buffer, prefix included, until the next field is put or the record ends.
std::byte* bbData(const MessageBuffer& buffer);
std::uint32_t bbSize(const MessageBuffer& buffer);

// Frees the bytes ahead of the record's end. The record can be composed anew.
void bbFree(MessageBuffer& buffer);

// Reading.

// Stands on the first field of `received`, which has to outlive the record's use. Returns kBbSuccess, kBbEnd when there
// is no field, or the code of what is wrong.
[[nodiscard]] int bbAttach(MessageBuffer& buffer, std::span<const std::byte> received, std::uint32_t prefix_size);

// Goes on to the next field. Returns as bbAttach() does. Needs a bbAttach() that did not return kBbBadHeader; without a
// field to go on from it returns the same code again.
[[nodiscard]] int bbNext(MessageBuffer& buffer);

// The current field. Only after a success of bbAttach() or bbNext().
std::uint32_t bbFieldLength(const MessageBuffer& buffer);
std::uint32_t bbFieldTag(const MessageBuffer& buffer);
std::span<const std::byte> bbFieldData(const MessageBuffer& buffer);

}  // namespace qel
