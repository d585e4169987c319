// A Tools Gate request: the unit in which the agent sends data to the host and gets the answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qel {

// Request codes.
inline constexpr std::uint32_t kTgServiceMessage = 0x8050;
inline constexpr std::uint32_t kTgGuestCommand = 0x8302;

// Status values that the host writes. Any other non-zero value means that the request was rejected.
inline constexpr std::uint32_t kTgStatusSuccess = 0;
inline constexpr std::uint32_t kTgStatusResubmit = 0xF0000025;  // submit again, unchanged
inline constexpr std::uint32_t kTgStatusFailure = 0xF0000000;   // the channel failed

// Results of TgSubmit().
inline constexpr std::uint32_t kTgSubmitSuccess = 0;
inline constexpr std::uint32_t kTgSubmitInterrupted = 0x800703E3;
inline constexpr std::uint32_t kTgSubmitFailure = 0x80004005;
inline constexpr std::uint32_t kTgSubmitNoDevice = 0x80070002;

// A memory area of the sender that belongs to a request. The host reads it, and writes to it when `writable` is true.
struct TgBuffer {
  std::byte* data = nullptr;
  std::uint32_t size = 0;  // bytes
  bool writable = false;
  bool is_inline = false;  // `data` points into the request's inline data; the host gets the address there
};

// A request in native types; TgSubmit() converts it to the layout that the host reads. The sender owns all memory and
// must keep it until TgSubmit() returns. On success the host has filled `status`, the inline data and the writable
// buffers.
struct TgRequest {
  std::uint32_t code = 0;
  std::uint32_t status = 0;
  std::span<std::byte> inline_data{};
  std::span<const TgBuffer> buffers{};
};

// Submits the request to the device `descriptor` with one write() of its 4-byte address. While the host answers
// kTgStatusResubmit, the request is submitted again, unchanged and at the same address, as long as TgResubmission
// allows it. Returns kTgSubmitSuccess when the host has processed the request (its answer is in `status`);
// kTgSubmitInterrupted when a signal interrupted the write; kTgSubmitFailure for all other errors, for the descriptor
// 0, and when TgResubmission allowed no further try. After an error the content of `status` and of the buffers must not
// be used. Any thread may call it.
std::uint32_t TgSubmit(int descriptor, TgRequest& request);

}  // namespace qel
