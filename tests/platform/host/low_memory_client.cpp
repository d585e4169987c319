#include "low_memory_client.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/gate_device.h"

namespace qel::host::test {
namespace {

constexpr std::size_t kMemory = 1 << 20;

}  // namespace

LowMemoryClient::LowMemoryClient() : device_(open(GateDevice::kPath, O_WRONLY | O_CLOEXEC)) {
  open_error_ = device_ < 0 ? errno : 0;
  void* memory = mmap(nullptr, kMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
  if (memory == MAP_FAILED) return;
  memory_ = static_cast<std::uint8_t*>(memory);
  base_ = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(memory));
}

LowMemoryClient::~LowMemoryClient() {
  if (memory_ != nullptr) munmap(memory_, kMemory);
  if (device_ >= 0) close(device_);
}

int LowMemoryClient::Write(ByteView bytes) const {
  const ssize_t written = write(device_, bytes.data(), bytes.size());
  if (written < 0) return errno;
  return static_cast<std::size_t>(written) == bytes.size() ? 0 : EIO;
}

Submitted LowMemoryClient::Submit(const GateRequest& request) {
  Bytes image;
  AppendU32(image, request.code);
  AppendU32(image, request.status);
  AppendU32(image, static_cast<std::uint32_t>(request.inline_data.size() | request.buffers.size() << 16));
  AppendU32(image, request.reserved);
  AppendBytes(image, request.inline_data);
  std::size_t place = image.size() + 16 * request.buffers.size();
  std::vector<std::size_t> places;
  for (const GateBuffer& buffer : request.buffers) {
    AppendU32(image, base_ + static_cast<std::uint32_t>(place));
    AppendU32(image, buffer.address_high);
    AppendU32(image, buffer.size);
    AppendU32(image, buffer.flags);
    places.push_back(place);
    place += buffer.data.size();
  }
  for (const GateBuffer& buffer : request.buffers) AppendBytes(image, buffer.data);
  std::memcpy(memory_, image.data(), image.size());

  Bytes address;
  AppendU32(address, base_);
  Submitted result;
  result.error = Write(address);
  const ByteView after(memory_, image.size());
  result.status = LoadU32(after, 4);
  const auto copy = [&after](std::size_t offset, std::size_t size) {
    const ByteView part = Slice(after, offset, size);
    return Bytes(part.begin(), part.end());
  };
  result.inline_data = copy(16, request.inline_data.size());
  for (std::size_t i = 0; i < places.size(); ++i) {
    result.buffers.push_back(copy(places[i], request.buffers[i].data.size()));
  }
  return result;
}

Submitted LowMemoryClient::SubmitUntilTaken(const GateRequest& request) {
  GateRequest again = request;
  Submitted result = Submit(again);
  while (result.error == 0 && result.status == kStatusResubmit) {
    again.status = kStatusResubmit;  // unchanged: the host's status stays in place
    result = Submit(again);
  }
  return result;
}

}  // namespace qel::host::test
