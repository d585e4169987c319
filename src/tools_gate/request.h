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

// A piece of the sender's memory that goes with a request. The host reads it, and writes into it when `writable`. It
// may be a part of the request's inline data: the host is then told its place in there.
struct TgBuffer {
  std::byte* data = nullptr;
  std::uint32_t size = 0;
  bool writable = false;
};

// The request as its sender sees it, in native types; request.cpp knows how it lies in memory that the host can
// address. Everything named here stays the sender's and has to outlive the submission. After a submission `status`, the
// inline data and the writable buffers hold what the host wrote.
struct TgRequest {
  std::uint32_t code = 0;
  std::uint32_t status = 0;
  std::span<std::byte> inline_data{};
  std::span<const TgBuffer> buffers{};
};

// Hands the request to the device `descriptor` with one write() of its 4-byte address, and again, unchanged and in the
// same place, as long as the host asks for that and may (resubmission.h). Returns kTgSubmitSuccess when the host has
// processed it (look at its status then; kTgStatusResubmit when it was given up), kTgSubmitInterrupted when a signal
// interrupted the write, kTgSubmitFailure for any other failure and for the descriptor 0. May be called from any
// thread.
std::uint32_t TgSubmit(int descriptor, TgRequest& request);

}  // namespace qel
