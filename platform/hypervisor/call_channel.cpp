#include "hypervisor/call_channel.h"

#include <algorithm>
#include <utility>

namespace qel::hypervisor {
namespace {

// The kind of a call, in EAX.
constexpr std::uint32_t kProbe = 0x05F9E652;
constexpr std::uint32_t kOpenTransfer = 0x05F9E653;
constexpr std::uint32_t kContinueTransfer = 0x05F9E654;
constexpr std::uint32_t kCancelTransfer = 0x05F9E655;

constexpr std::uint32_t kProbeAnswer = 0x0B36AF47;

// The state of a transfer, in EDI of an answer. Negative states are failures.
constexpr std::uint32_t kFinished = 0;
constexpr std::uint32_t kWantsMore = 1;
constexpr std::uint32_t kHasReply = 2;
constexpr std::uint32_t kBroken = 0xFFFFFFFF;

constexpr std::uint32_t kMaxMessage = std::uint32_t{64} << 20;

}  // namespace

CallChannel::CallChannel(ChannelOptions options, MessageSink on_message, ViolationSink on_violation)
    : options_(std::move(options)), on_message_(std::move(on_message)), on_violation_(std::move(on_violation)) {}

bool CallChannel::Answer(Registers& registers, GuestMemory& memory) {
  switch (registers.eax) {
    case kProbe:
      if (registers.ebx != kProbe) {
        return false;
      }
      registers = {.eax = kProbeAnswer, .ebx = options_.version, .ecx = options_.chunk_size};
      return true;
    case kOpenTransfer: {
      const std::uint32_t id = next_id_++;
      transfers_[id].length = registers.ebx;
      Continue(id, registers, memory);
      registers.eax = id;
      return true;
    }
    case kContinueTransfer:
      Continue(registers.ebx, registers, memory);
      return true;
    case kCancelTransfer:
      if (transfers_.erase(registers.ebx) == 0) {
        Fail(registers.ebx, registers, "cancels a transfer that is not open");
      } else {
        registers.edi = kFinished;
      }
      return true;
    default:
      return false;
  }
}

void CallChannel::Continue(std::uint32_t id, Registers& registers, GuestMemory& memory) {
  const auto found = transfers_.find(id);
  if (found == transfers_.end()) {
    Fail(id, registers, "continues a transfer that is not open");
    return;
  }
  Transfer& transfer = found->second;
  if (const Complaint complaint = TakePiece(transfer, registers, memory); complaint != nullptr) {
    Fail(id, registers, complaint);
    return;
  }
  if (transfer.message.size() < transfer.length) {
    registers.edx = 0;
    registers.esi = 0;
    registers.edi = kWantsMore;
    return;
  }
  if (!transfer.reported) {
    transfer.reported = true;
    on_message_(transfer.message);
  }
  if (const Complaint complaint = GiveReply(transfer, registers, memory); complaint != nullptr) {
    Fail(id, registers, complaint);
  } else if (registers.edi != kHasReply) {
    transfers_.erase(id);
  }
}

CallChannel::Complaint CallChannel::TakePiece(Transfer& transfer, const Registers& registers,
                                              GuestMemory& memory) const {
  const std::uint32_t length = registers.esi;
  const std::size_t had = transfer.message.size();
  if (length > options_.chunk_size || registers.edx > options_.chunk_size) {
    return "passes more than a chunk";
  }
  if (registers.edx < length || registers.ecx > 1) {
    return "states sizes that contradict each other";
  }
  if (length > transfer.length - had) {
    return "sends more bytes than the message has";
  }
  if (length == 0 && had < transfer.length) {
    return "sends no bytes although the message is incomplete";
  }
  if (transfer.length > kMaxMessage) {
    return "sends a message that is too large";
  }
  transfer.message.resize(had + length);
  return memory.Read(registers.edi, std::span(transfer.message).subspan(had)) ? nullptr
                                                                              : "uses memory that is not accessible";
}

CallChannel::Complaint CallChannel::GiveReply(Transfer& transfer, Registers& registers, GuestMemory& memory) const {
  const std::span<const std::byte> rest = std::span(options_.reply).subspan(transfer.replied);
  const std::span<const std::byte> part =
      rest.first(registers.ecx == 0 ? 0 : std::min<std::size_t>(rest.size(), registers.edx));
  if (!memory.Write(registers.edi, part)) {
    return "uses memory that is not accessible";
  }
  transfer.replied += part.size();
  registers.edx = static_cast<std::uint32_t>(part.size());
  registers.esi = static_cast<std::uint32_t>(options_.reply.size());
  registers.edi = part.size() < rest.size() ? kHasReply : static_cast<std::uint32_t>(options_.state);
  return nullptr;
}

void CallChannel::Fail(std::uint32_t id, Registers& registers, Complaint complaint) {
  on_violation_("channel " + std::to_string(id) + " " + complaint);
  transfers_.erase(id);
  registers.edx = 0;
  registers.esi = 0;
  registers.edi = kBroken;
}

}  // namespace qel::hypervisor
