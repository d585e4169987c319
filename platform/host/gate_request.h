// A request of the gate, and the answer to it.
#pragma once

#include <sys/types.h>

#include <chrono>

#include "host/bytes.h"

namespace qel::host {

inline constexpr std::uint32_t kServiceRequest = 0x8050;
inline constexpr std::uint32_t kGuestCommandRequest = 0x8302;

inline constexpr std::uint32_t kStatusSuccess = 0;
inline constexpr std::uint32_t kStatusResubmit = 0xF0000025;
inline constexpr std::uint32_t kStatusFailure = 0xF0000000;
inline constexpr std::uint32_t kStatusRejected = 0xF0000001;  // all other nonzero values also mean a rejection

inline constexpr std::uint32_t kBufferWritable = 1;

struct GateBuffer {
  std::uint32_t address = 0;
  std::uint32_t address_high = 0;
  std::uint32_t size = 0;
  std::uint32_t flags = 0;
  Bytes data;  // `size` bytes, a copy of the sender's memory

  bool Writable() const { return (flags & kBufferWritable) != 0; }
  bool operator==(const GateBuffer&) const = default;
};

struct GateRequest {
  pid_t process = 0;  // the sender's process; 0 when it is not known
  pid_t thread = 0;   // the thread that wrote the address
  std::uint32_t address = 0;
  std::uint32_t code = 0;
  std::uint32_t status = 0;
  std::uint32_t reserved = 0;
  Bytes inline_data;
  std::vector<GateBuffer> buffers;
};

struct GateAnswer {
  std::uint32_t status = kStatusSuccess;
  Bytes inline_data;                   // replaces the first bytes of the inline data
  std::vector<Bytes> buffers;          // [i] replaces the first bytes of buffer i, if that buffer is writable
  std::chrono::milliseconds delay{0};  // how long the sender waits for the answer
  int write_error = 0;                 // if not 0, write() fails with this errno value, and nothing is written back
};

}  // namespace qel::host
