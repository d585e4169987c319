// Messages over the hypervisor call. An honest hypervisor must get the whole message and its reply must arrive whole;
// one that lies in its registers must not make the agent read or write outside of the message's buffer.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "support/fuzzed_data.h"
#include "tools_gate/hypervisor_transfer.h"

namespace {

using qel::fuzz::Expect;

constexpr std::uint32_t kOpen = 0x05F9E653;
constexpr std::uint32_t kContinue = 0x05F9E654;
constexpr std::uint32_t kCancel = 0x05F9E655;

class Hypervisor {
 public:
  Hypervisor(qel::fuzz::FuzzedData& input, bool honest) : input_(input), honest_(honest) {}

  std::uint32_t chunk = 1;
  std::uint32_t message_length = 0;
  std::uint32_t capacity = 0;
  std::vector<std::byte> reply;     // of an honest hypervisor
  std::vector<std::byte> received;  // the message
  bool is_cancelled = false;

  bool OnCall(qel::HypervisorRegisters& r) {
    Expect(!is_cancelled, "nothing is sent after a cancellation");
    if (r.eax == kCancel) {
      is_cancelled = true;
      return true;
    }
    CheckCall(r);
    auto* const place = reinterpret_cast<std::byte*>(static_cast<std::uintptr_t>(r.edi));
    received.insert(received.end(), place, place + r.esi);
    return honest_ ? AnswerHonestly(r, place) : Lie(r, place);
  }

 private:
  void CheckCall(const qel::HypervisorRegisters& r) {
    Expect(r.eax == (is_open_ ? kContinue : kOpen), "a transfer is opened, then continued");
    Expect(is_open_ ? r.ebx == channel_ : r.ebx == message_length, "the channel, or the length");
    const auto left = message_length - static_cast<std::uint32_t>(received.size());
    Expect(r.esi == (left > chunk ? std::min(left - chunk, chunk) : left), "the last piece is a whole chunk");
    Expect(r.edx >= r.esi && r.edx <= std::max(chunk, r.esi), "the room is not larger than the chunk");
    if (!is_open_) {
      buffer_ = r.edi;
      is_open_ = true;
    }
    Expect(r.edi - buffer_ + r.edx <= std::max(message_length, capacity), "the place is inside of the buffer");
  }

  bool AnswerHonestly(qel::HypervisorRegisters& r, std::byte* place) {
    const bool is_received = received.size() == message_length;
    // A reply can begin when the whole message is there. Part of the room may be left unused.
    const std::uint32_t room = r.ecx != 0 && is_received && capacity != 0 ? r.edx : 0;
    const auto left = static_cast<std::uint32_t>(reply.size()) - delivered_;
    std::uint32_t size = std::min({room, left, r.esi != 0 ? std::min(room, r.esi) : room});
    size -= size > 1 ? input_.Byte() % size : 0;
    std::copy_n(reply.data() + delivered_, size, place);
    delivered_ += size;
    r.eax = channel_;
    r.edx = capacity != 0 ? size : 99;  // without meaning when no reply is wanted
    r.esi = static_cast<std::uint32_t>(reply.size());
    r.edi = is_received && delivered_ == reply.size() ? 0 : 2;
    return true;
  }

  bool Lie(qel::HypervisorRegisters& r, std::byte* place) {
    const auto bytes = input_.Bytes(r.ecx != 0 ? r.edx : 0);
    std::copy_n(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size(), place);
    const std::uint8_t kind = input_.Byte();
    channel_ = r.eax == kOpen ? input_.Number() : channel_;
    r.eax = channel_;
    r.ebx = r.ecx = 0xFFFFFFFF;
    r.edx = (kind & 1) != 0 ? input_.Number() : std::min(r.edx, std::uint32_t{input_.Byte()});
    r.esi = (kind & 2) != 0 ? input_.Number() : capacity;
    r.edi = input_.IsEmpty() ? 0 : (kind & 4) != 0 ? input_.Number() : kind & 8;  // finished after the end of the input
    return kind != 255;
  }

  qel::fuzz::FuzzedData& input_;
  const bool honest_;
  bool is_open_ = false;
  std::uint32_t channel_ = 7;
  std::uint32_t buffer_ = 0;  // the address of the message
  std::uint32_t delivered_ = 0;
};

void Probe(qel::fuzz::FuzzedData& input) {
  const qel::HypervisorRegisters answer{input.Number(),  input.Number(1), input.Number(),
                                        input.Number(1), input.Number(1), input.Number(1)};
  std::uint32_t chunk = 99;
  const int result = qel::ProbeHypervisor(
      [&](qel::HypervisorRegisters& r) {
        r = answer;
        return true;
      },
      chunk);
  const bool known = answer.eax == 0x0B36AF47 && (answer.edx | answer.esi | answer.edi) == 0;
  const bool usable = known && answer.ebx == 2 && answer.ecx != 0;
  Expect((result == qel::kTgSuccess) == usable && chunk == (usable ? answer.ecx : 99), "the answer to the probe");
  Expect((result == qel::kTgRejected) == (known && answer.ebx != 2), "another version");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const std::uint8_t mode = input.Byte();
  if (mode % 16 == 0) {
    Probe(input);
  }
  Hypervisor hypervisor(input, (mode & 1) != 0);
  const bool is_long = (mode & 4) != 0;
  hypervisor.chunk = (mode & 2) != 0 ? input.Number() | 1 : input.Byte() + 1U;
  hypervisor.chunk |= is_long ? 0x4000 : 0;  // a long message in small pieces would only take long
  hypervisor.message_length = input.Number(2) % (is_long ? 131072 : 600);
  hypervisor.capacity = input.Number(2) % 600;
  const std::uint32_t buffer_size = std::max(hypervisor.message_length, hypervisor.capacity);
  const std::unique_ptr<std::byte[]> buffer(new std::byte[buffer_size]);
  for (std::uint32_t i = 0; i < buffer_size; ++i) {
    buffer[i] = static_cast<std::byte>(i * 7);
  }
  const std::vector<std::byte> message(buffer.get(), buffer.get() + hypervisor.message_length);
  const std::uint32_t reply_size = hypervisor.capacity == 0 ? 0 : input.Number(2) % (hypervisor.capacity + 1);
  for (std::uint32_t i = 0; i < reply_size; ++i) {
    hypervisor.reply.push_back(static_cast<std::byte>(i * 5 + 1));
  }

  qel::HypervisorMessage sent{
      .data = buffer.get(), .request_length = hypervisor.message_length, .reply_capacity = hypervisor.capacity};
  const int result = qel::SendOverHypervisor(
      [&](qel::HypervisorRegisters& registers) { return hypervisor.OnCall(registers); }, hypervisor.chunk, sent);
  Expect(sent.reply_length <= hypervisor.capacity, "a reply fits");
  if ((mode & 1) != 0) {
    Expect(result == qel::kTgSuccess && !hypervisor.is_cancelled, "an honest transfer succeeds");
    Expect(hypervisor.received == message, "the whole message arrives");
    Expect(std::equal(hypervisor.reply.begin(), hypervisor.reply.end(), buffer.get(), buffer.get() + sent.reply_length),
           "the whole reply arrives");
  }
  return 0;
}
