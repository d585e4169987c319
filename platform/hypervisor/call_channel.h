// The host side of the hypervisor call: receives messages in pieces and returns replies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace qel::hypervisor {

// The registers of one call: arguments and results.
struct Registers {
  std::uint32_t eax = 0;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 0;
  std::uint32_t edx = 0;
  std::uint32_t esi = 0;
  std::uint32_t edi = 0;
};

// Access to the memory of the calling guest. Both functions return false when not all bytes are accessible.
class GuestMemory {
 public:
  virtual ~GuestMemory() = default;
  virtual bool Read(std::uint32_t address, std::span<std::byte> to) = 0;
  virtual bool Write(std::uint32_t address, std::span<const std::byte> from) = 0;
};

struct ChannelOptions {
  std::uint32_t chunk_size = 4096;  // maximum number of bytes per call
  std::uint32_t version = 2;
  std::vector<std::byte> reply;  // the reply to every message
  std::int32_t state = 0;        // the final state of each transfer; negative: failed
};

// All channels of one hypervisor.
class CallChannel {
 public:
  using MessageSink = std::function<void(std::span<const std::byte> message)>;
  using ViolationSink = std::function<void(const std::string& text)>;

  // `on_message` is called with every complete message. `on_violation` is called with a description of each invalid
  // call, which then fails.
  CallChannel(ChannelOptions options, MessageSink on_message, ViolationSink on_violation);

  // Answers one call: replaces the registers by the results. Returns false when the call is not for this channel; then
  // the instruction must fault as without a hypervisor.
  bool Answer(Registers& registers, GuestMemory& memory);

 private:
  struct Transfer {
    std::uint32_t length = 0;  // of the message
    std::vector<std::byte> message;
    bool reported = false;
    std::size_t replied = 0;
  };

  // A text that describes an invalid call, or null.
  using Complaint = const char*;

  void Continue(std::uint32_t id, Registers& registers, GuestMemory& memory);
  Complaint TakePiece(Transfer& transfer, const Registers& registers, GuestMemory& memory) const;
  Complaint GiveReply(Transfer& transfer, Registers& registers, GuestMemory& memory) const;
  void Fail(std::uint32_t id, Registers& registers, Complaint complaint);

  ChannelOptions options_;
  MessageSink on_message_;
  ViolationSink on_violation_;
  std::map<std::uint32_t, Transfer> transfers_;
  std::uint32_t next_id_ = 1;
};

}  // namespace qel::hypervisor
