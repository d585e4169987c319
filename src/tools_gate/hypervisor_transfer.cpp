#include "tools_gate/hypervisor_transfer.h"

#include <algorithm>
#include <cstring>

#include "tools_gate/low_memory.h"
#include "tools_gate/resubmission.h"

namespace qel {
namespace {

constexpr std::uint32_t kProbe = 0x05F9E652;
constexpr std::uint32_t kOpenTransfer = 0x05F9E653;
constexpr std::uint32_t kContinueTransfer = 0x05F9E654;
constexpr std::uint32_t kCancelTransfer = 0x05F9E655;
constexpr std::uint32_t kProbeAnswer = 0x0B36AF47;
constexpr std::uint32_t kChannelVersion = 2;

constexpr std::int32_t kFinished = 0;
constexpr std::int32_t kCancellable = 2;

// The transfer of one message and its reply. `place` is the address of the message's buffer in low memory.
class Transfer {
 public:
  Transfer(const HypervisorCall& call, std::uint32_t chunk_size, HypervisorMessage& message, std::byte* place)
      : call_(call), chunk_size_(chunk_size), message_(message), place_(place) {}

  int Run() {
    TgResubmission resubmission;
    while (true) {
      if (const int result = Step(); result != kTgSuccess) {
        return result;
      }
      if (message_.state == kFinished) {
        return kTgSuccess;
      }
      if (!resubmission.KeepTrying()) {
        return GiveUp();
      }
    }
  }

 private:
  // The length in bytes of the next piece. A message longer than a chunk is cut so that its last piece is a full chunk.
  std::uint32_t PieceLength() const {
    const std::uint32_t left = message_.request_length - sent_;
    return left > chunk_size_ ? std::min(left - chunk_size_, chunk_size_) : left;
  }

  // The number of reply bytes that the next call can take. A call that sends a piece offers the place of that piece,
  // even when no reply is wanted.
  std::uint32_t ReplyRoom(std::uint32_t piece) const {
    const std::uint32_t capacity = message_.reply_capacity;
    if (piece == 0) {
      return std::min(chunk_size_, capacity - message_.reply_length);
    }
    return std::min(chunk_size_, message_.request_length >= capacity ? piece : capacity - sent_);
  }

  // Makes one call: sends the next piece; a part of the reply may be returned in the same place.
  int Step() {
    const std::uint32_t piece = PieceLength();
    const std::uint32_t room = ReplyRoom(piece);
    std::byte* const spot = place_ + (piece != 0 ? sent_ : message_.reply_length);
    HypervisorRegisters registers{.eax = is_open_ ? kContinueTransfer : kOpenTransfer,
                                  .ebx = is_open_ ? channel_ : message_.request_length,
                                  .ecx = room != 0 ? 1U : 0U,
                                  .edx = std::max(piece, room),
                                  .esi = piece,
                                  .edi = LowMemory::AddressOf(spot)};
    if (!call_(registers)) {
      return kTgChannelFailure;
    }
    if (!is_open_) {
      channel_ = registers.eax;
      is_open_ = true;
    }
    sent_ += piece;
    message_.state = static_cast<std::int32_t>(registers.edi);
    if (message_.state < 0) {
      return kTgServiceFailed;
    }
    if (registers.esi > message_.reply_capacity) {
      if (message_.state == kCancellable) {
        Cancel();
      }
      return kTgReplyTooLarge;
    }
    // When no reply is wanted, the register has no meaning.
    return message_.reply_capacity != 0 ? TakeReply(spot, room, registers.edx) : kTgSuccess;
  }

  // Appends the bytes that a call has returned to the reply. The hypervisor's byte count is checked: no byte is read
  // beyond the offered room, and none is written outside of the message's buffer.
  int TakeReply(const std::byte* delivered, std::uint32_t room, std::uint32_t size) {
    if (size > room || size > message_.reply_capacity - message_.reply_length) {
      return GiveUp();
    }
    if (size != 0) {
      std::memmove(place_ + message_.reply_length, delivered, size);
      message_.reply_length += size;
    }
    return kTgSuccess;
  }

  int GiveUp() {
    if (message_.state != kFinished) {
      Cancel();
    }
    return kTgChannelFailure;
  }

  // Cancels the transfer. The answer is not needed.
  void Cancel() {
    HypervisorRegisters registers{.eax = kCancelTransfer, .ebx = channel_};
    call_(registers);
  }

  const HypervisorCall& call_;
  const std::uint32_t chunk_size_;
  HypervisorMessage& message_;
  std::byte* const place_;
  std::uint32_t sent_ = 0;
  std::uint32_t channel_ = 0xFFFFFFFF;
  bool is_open_ = false;
};

}  // namespace

int ProbeHypervisor(const HypervisorCall& call, std::uint32_t& chunk_size) {
  HypervisorRegisters registers{.eax = kProbe, .ebx = kProbe};
  if (!call(registers) || registers.eax != kProbeAnswer || registers.edx != 0 || registers.esi != 0 ||
      registers.edi != 0) {
    return kTgChannelFailure;
  }
  if (registers.ebx != kChannelVersion) {
    return kTgRejected;
  }
  if (registers.ecx == 0) {
    return kTgChannelFailure;  // no byte could be sent
  }
  chunk_size = registers.ecx;
  return kTgSuccess;
}

int SendOverHypervisor(const HypervisorCall& call, std::uint32_t chunk_size, HypervisorMessage& message) {
  message.reply_length = 0;
  message.state = kFinished;
  const std::uint32_t size = std::max(message.request_length, message.reply_capacity);
  const LowMemory memory(LowMemory::RoomFor(size));
  if (!memory) {
    return kTgChannelFailure;
  }
  Transfer transfer(call, chunk_size, message, memory.Stage(0, message.data, size));
  const int result = transfer.Run();
  memory.Unstage(0, message.data, message.reply_length);
  return result;
}

}  // namespace qel
