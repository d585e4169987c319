// The host's end of the hypervisor call: takes the pieces of messages and hands out replies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace qel::hypervisor {

// The registers of one call, in and out.
struct Registers {
  std::uint32_t eax = 0;
  std::uint32_t ebx = 0;
  std::uint32_t ecx = 0;
  std::uint32_t edx = 0;
  std::uint32_t esi = 0;
  std::uint32_t edi = 0;
};

// The memory of the guest that makes a call. Both return false when not all of it can be reached.
class GuestMemory {
 public:
  virtual ~GuestMemory() = default;
  virtual bool Read(std::uint32_t address, std::span<std::byte> to) = 0;
  virtual bool Write(std::uint32_t address, std::span<const std::byte> from) = 0;
};

struct ChannelOptions {
  std::uint32_t chunk_size = 4096;  // most bytes of one call
  std::uint32_t version = 2;
  std::vector<std::byte> reply;  // to every message
  std::int32_t state = 0;        // what a message ends with; a negative one is a failure
};

// All channels of one hypervisor.
class CallChannel {
 public:
  using MessageSink = std::function<void(std::span<const std::byte> message)>;
  using ViolationSink = std::function<void(const std::string& text)>;

  // `on_message` gets every complete message, `on_violation` what a guest did against the rules (that call then
  // fails).
  CallChannel(ChannelOptions options, MessageSink on_message, ViolationSink on_violation);

  // Answers one call in place. False when it is none of this channel's: the instruction then faults as if there were no
  // hypervisor.
  bool Answer(Registers& registers, GuestMemory& memory);

 private:
  struct Transfer {
    std::uint32_t length = 0;  // of the message
    std::vector<std::byte> message;
    bool reported = false;
    std::size_t replied = 0;
  };

  // What is wrong with a call, or null.
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
