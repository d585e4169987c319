// Answers of the gate's device to service messages: any status, any lengths and results, any bytes where the host may
// write. A scripted write() plays the host.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "support/fuzzed_data.h"
#include "tools_gate/link.h"
#include "tools_gate/little_endian.h"

extern "C" ssize_t __real_write(int descriptor, const void* data, std::size_t size);

namespace {

using qel::fuzz::Expect;

constexpr std::size_t kSubHeaderSize = 32;
constexpr std::size_t kMostInline = 512;

std::byte* PlaceAt(std::uint32_t address) {
  return reinterpret_cast<std::byte*>(static_cast<std::uintptr_t>(address));  // NOLINT(performance-no-int-to-ptr)
}

// A host that answers as the input says.
class Host {
 public:
  explicit Host(qel::fuzz::FuzzedData& input) : input_(input) {}

  ssize_t OnWrite(const void* data, std::size_t size) {
    Expect(size == 4, "the address is written");
    std::uint32_t address = 0;
    std::memcpy(&address, data, sizeof address);
    std::byte* const request = PlaceAt(address);
    CheckRequest(address);
    inline_bytes = qel::LoadU16(request + 8);
    buffer_count = qel::LoadU16(request + 10);
    const std::uint8_t failure = input_.Byte();
    if (failure >= 250) {
      resubmitted_.clear();
      result = qel::kTgChannelFailure;
      errno = failure % 2 == 0 ? EINTR : EIO;
      return failure == 255 ? 2 : -1;
    }
    constexpr std::uint32_t kStatus[] = {0, 0, 0, qel::kTgStatusResubmit, qel::kTgStatusFailure, 1};
    const std::uint32_t status = input_.IsEmpty() ? 0 : kStatus[input_.Byte() % std::size(kStatus)];
    qel::StoreU32(request + 4, status);
    if (status == qel::kTgStatusResubmit) {
      return 4;
    }
    resubmitted_.clear();
    result = status == 0                       ? qel::kTgSuccess
             : status == qel::kTgStatusFailure ? qel::kTgChannelFailure
                                               : qel::kTgRejected;
    WriteAnswer(request);
    return 4;
  }

  int result = qel::kTgChannelFailure;
  std::vector<std::byte> sub_header;  // of the last answer, after the host has written to it
  std::vector<std::byte> reply;       // what the host has written to the place of the message
  std::vector<std::byte> sent;        // the message as the host has received it
  std::size_t inline_bytes = 0;       // of the last request
  std::size_t buffer_count = 0;

 private:
  // A request that was not processed comes again, with the same content at the same address.
  void CheckRequest(std::uint32_t address) {
    const std::byte* const request = PlaceAt(address);
    std::vector<std::byte> content(request, request + 16 + qel::LoadU16(request + 8));
    Expect(qel::LoadU32(request) == qel::kTgServiceMessage && qel::LoadU32(request + 4) == 0, "a service message");
    if (!resubmitted_.empty()) {
      Expect(content == resubmitted_, "a request is submitted again unchanged");
    }
    resubmitted_ = std::move(content);
  }

  // Calls `use` with each part of the request: the inline data, then the buffers.
  template <typename Use>
  void ForEachPart(std::byte* request, Use use) {
    const std::size_t inline_size = qel::LoadU16(request + 8);
    use(request + 16, inline_size, true);
    const std::byte* descriptor = request + 16 + inline_size;
    for (std::uint16_t left = qel::LoadU16(request + 10); left > 0; --left, descriptor += 16) {
      Expect(qel::LoadU32(descriptor + 4) == 0, "the high half of an address is zero");
      use(PlaceAt(qel::LoadU32(descriptor)), std::size_t{qel::LoadU32(descriptor + 8)},
          (qel::LoadU32(descriptor + 12) & 1) != 0);
    }
  }

  void WriteAnswer(std::byte* request) {
    sub_header.clear();
    sent.clear();
    reply.clear();
    ForEachPart(request, [this](std::byte* place, std::size_t size, bool writable) {
      sent.insert(sent.end(), place, place + size);
      const auto bytes = input_.Bytes(writable ? size : 0);
      std::copy_n(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size(), place);
      reply.insert(reply.end(), place, place + size);
    });
    // The sub-header is first, wherever it is.
    const auto split = static_cast<std::ptrdiff_t>(std::min(kSubHeaderSize, reply.size()));
    sub_header.assign(reply.begin(), reply.begin() + split);
    reply.erase(reply.begin(), reply.begin() + split);
    sent.erase(sent.begin(), sent.begin() + split);
  }

  qel::fuzz::FuzzedData& input_;
  std::vector<std::byte> resubmitted_;
};

Host* g_host = nullptr;
int g_device = -1;

void Send(qel::TgLink& link, Host& host, qel::fuzz::FuzzedData& input) {
  const std::uint32_t request_length = input.Number(2) % 1100;
  const std::uint32_t capacity = input.Number(2) % 1100;
  const std::size_t size = std::max(request_length, capacity);
  const std::unique_ptr<std::byte[]> data(new std::byte[size]);
  std::fill_n(data.get(), size, std::byte{0x5A});
  std::uint32_t reply_length = 0xFFFFFFFF;
  const int result = qel::TgLinkSendMessage(link, data.get(), request_length, capacity, &reply_length);

  const bool in_buffers = link.channel->sub_header_in_buffer;
  const bool all_inline = !in_buffers && size <= kMostInline;
  Expect(host.inline_bytes == (in_buffers ? 0 : kSubHeaderSize + (all_inline ? size : 0)), "what is sent inline");
  Expect(host.buffer_count == (in_buffers ? 1U : 0U) + (all_inline || size == 0 ? 0U : 1U), "what is sent in buffers");
  int expected = host.result;
  if (expected == qel::kTgSuccess) {
    const auto service_result = static_cast<std::int32_t>(qel::LoadU32(host.sub_header.data() + 20));
    Expect(link.last_status == service_result, "the link keeps the host's result");
    expected = service_result < 0                                     ? qel::kTgServiceFailed
               : qel::LoadU32(host.sub_header.data() + 16) > capacity ? qel::kTgReplyTooLarge
                                                                      : qel::kTgSuccess;
  }
  Expect(result == expected, "the result is what the host's answer means");
  if (result != qel::kTgSuccess) {
    Expect(reply_length == 0xFFFFFFFF, "without a reply it has no length");
    return;
  }
  Expect(reply_length == std::min(qel::LoadU32(host.sub_header.data() + 12), capacity), "the length of the reply");
  Expect(host.sent == std::vector(size, std::byte{0x5A}), "the host gets the message");
  Expect(std::equal(data.get(), data.get() + reply_length, host.reply.begin()), "the reply is what the host wrote");
  Expect(capacity != 0 || std::all_of(data.get(), data.get() + size, [](std::byte b) { return b == std::byte{0x5A}; }),
         "without room for a reply the message is not changed");
}

}  // namespace

extern "C" ssize_t __wrap_write(int descriptor, const void* data, std::size_t size) {
  return g_host != nullptr && descriptor == g_device ? g_host->OnWrite(data, size)
                                                     : __real_write(descriptor, data, size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  Host host(input);
  qel::TgChannelState channel;
  channel.open_device = [](int& descriptor) {
    descriptor = g_device = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return qel::kTgSubmitSuccess;
  };
  channel.call_hypervisor = [](qel::HypervisorRegisters&) { return false; };
  g_host = &host;
  qel::TgLink link{.channel = &channel};
  const int opened = qel::TgLinkOpen(link);
  Expect((opened == qel::kTgSuccess) == (host.result == qel::kTgSuccess), "the link opens when the probe succeeds");
  if (opened == qel::kTgSuccess) {
    Expect(channel.sub_header_in_buffer == (static_cast<std::int32_t>(qel::LoadU32(host.sub_header.data() + 20)) >= 0),
           "the probe chooses the layout");
  }
  for (int messages = 0; opened == qel::kTgSuccess && messages < 4 && !input.IsEmpty(); ++messages) {
    Send(link, host, input);
  }
  if (opened == qel::kTgSuccess) {
    qel::TgUnregisterService(link, "name");
    qel::TgRegisterService(link, "name", "title", 1, 0, nullptr, {});
  }
  qel::TgLinkClose(link);
  g_host = nullptr;
  return 0;
}
