// A Tools Gate request: what the agent hands to the host in one submission.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace qel {

// Request codes.
inline constexpr std::uint32_t kTgServiceMessage = 0x8050;
inline constexpr std::uint32_t kTgGuestCommand = 0x8302;

// Status values the host writes; any other non-zero value means a rejected request.
inline constexpr std::uint32_t kTgStatusSuccess = 0;
inline constexpr std::uint32_t kTgStatusResubmit = 0xF0000025;  // submit again, unchanged
inline constexpr std::uint32_t kTgStatusFailure = 0xF0000000;   // the channel failed

// Result words of TgSubmit().
inline constexpr std::uint32_t kTgSubmitSuccess = 0;
inline constexpr std::uint32_t kTgSubmitInterrupted = 0x800703E3;
inline constexpr std::uint32_t kTgSubmitFailure = 0x80004005;
inline constexpr std::uint32_t kTgSubmitNoDevice = 0x80070002;

// A piece of the sender's memory that goes with a request. The host reads it, and writes into it when `writable`.
struct TgBuffer {
  std::byte* data = nullptr;
  std::uint32_t size = 0;  // bytes
  bool writable = false;
  bool is_inline = false;  // `data` lies in the request's inline data: the host is told its place in there
};

// The request as its sender sees it, in native types; request.cpp knows how it lies in memory that the host can
// address. Everything named here stays the sender's and has to outlive the submission. After a success `status`, the
// inline data and the writable buffers hold what the host wrote.
struct TgRequest {
  std::uint32_t code = 0;
  std::uint32_t status = 0;
  std::span<std::byte> inline_data{};
  std::span<const TgBuffer> buffers{};
};

// Hands the request to the device `descriptor` with one write() of its 4-byte address. While the host answers
// kTgStatusResubmit it is handed over again, unchanged and in the same place, as long as TgResubmission allows.
// Returns kTgSubmitSuccess when the host has processed the request (its answer is in `status`), kTgSubmitInterrupted
// when a signal interrupted the write, and kTgSubmitFailure for any other failure, for the descriptor 0, and when the
// resubmission was given up. After a failure nothing of what the host wrote may be used. Any thread may call it.
std::uint32_t TgSubmit(int descriptor, TgRequest& request);

}  // namespace qel
