#include "host/request_reader.h"

#include <sys/uio.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace qel::host {
namespace {

constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kDescriptorSize = 16;
// Limits far above the requests of any agent, but low enough to protect the host's memory.
constexpr std::size_t kMostBuffers = 64;
constexpr std::uint64_t kMostBytes = 64 << 20;

enum class Direction { kFromSender, kToSender };

// Copies `size` bytes between this process and another one. Returns 0 or an errno value; a short transfer is an error.
int Transfer(Direction direction, pid_t thread, std::uint64_t address, void* local, std::size_t size) {
  if (size == 0) return 0;
  const iovec mine{local, size};
  // An address in the other process, with the type that the system call needs.
  const iovec theirs{reinterpret_cast<void*>(static_cast<std::uintptr_t>(address)), size};
  const ssize_t moved = direction == Direction::kFromSender ? process_vm_readv(thread, &mine, 1, &theirs, 1, 0)
                                                            : process_vm_writev(thread, &mine, 1, &theirs, 1, 0);
  if (moved < 0) return errno;
  return static_cast<std::size_t>(moved) == size ? 0 : EFAULT;
}

bool Note(RequestProblem& problem, int error, std::string text) {
  problem = {error, std::move(text)};
  return false;
}

bool Fetch(pid_t thread, std::uint64_t address, Bytes& bytes, std::size_t size, const char* what,
           RequestProblem& problem) {
  bytes.resize(size);
  const int error = Transfer(Direction::kFromSender, thread, address, bytes.data(), size);
  if (error == 0) return true;
  return Note(problem, error == ESRCH ? ESRCH : EFAULT,
              Format("%s: %zu bytes at 0x%llx cannot be read: %s", what, size, static_cast<unsigned long long>(address),
                     std::strerror(error)));
}

// The process to which the thread belongs; 0 if it has ended.
pid_t ProcessOf(pid_t thread) {
  std::ifstream status("/proc/" + std::to_string(thread) + "/status");
  for (std::string line; std::getline(status, line);) {
    int process = 0;
    if (std::sscanf(line.c_str(), "Tgid: %d", &process) == 1) return process;
  }
  return 0;
}

bool ReadBuffer(pid_t thread, std::size_t index, ByteView descriptor, std::uint64_t& left, GateBuffer& buffer,
                RequestProblem& problem) {
  buffer.address = LoadU32(descriptor, 0);
  buffer.address_high = LoadU32(descriptor, 4);
  buffer.size = LoadU32(descriptor, 8);
  buffer.flags = LoadU32(descriptor, 12);
  const std::string name = Format("buffer %zu", index);
  if (buffer.size > left) return Note(problem, EINVAL, Format("%s: %u bytes are too many", name.c_str(), buffer.size));
  left -= buffer.size;
  // Only the low 32 bits are used; the decoder checks the high word.
  return Fetch(thread, buffer.address, buffer.data, buffer.size, name.c_str(), problem);
}

}  // namespace

std::optional<GateRequest> ReadRequest(pid_t thread, std::uint32_t address, RequestProblem& problem) {
  GateRequest request;
  request.thread = thread;
  request.process = ProcessOf(thread);
  request.address = address;
  Bytes header;
  if (!Fetch(thread, address, header, kHeaderSize, "request header", problem)) return std::nullopt;
  request.code = LoadU32(header, 0);
  request.status = LoadU32(header, 4);
  request.reserved = LoadU32(header, 12);
  const std::size_t inline_size = LoadU16(header, 8);
  const std::size_t buffers = LoadU16(header, 10);
  if (buffers > kMostBuffers) {
    Note(problem, EINVAL, Format("request: %zu buffers are too many", buffers));
    return std::nullopt;
  }
  std::uint64_t place = static_cast<std::uint64_t>(address) + kHeaderSize;
  if (!Fetch(thread, place, request.inline_data, inline_size, "inline data", problem)) return std::nullopt;
  place += inline_size;
  Bytes descriptors;
  if (!Fetch(thread, place, descriptors, buffers * kDescriptorSize, "buffer descriptors", problem)) return std::nullopt;
  std::uint64_t left = kMostBytes;
  request.buffers.resize(buffers);
  for (std::size_t i = 0; i < buffers; ++i) {
    if (!ReadBuffer(thread, i, Slice(descriptors, i * kDescriptorSize, kDescriptorSize), left, request.buffers[i],
                    problem)) {
      return std::nullopt;
    }
  }
  return request;
}

bool WriteAnswer(const GateRequest& request, const GateAnswer& answer, RequestProblem& problem) {
  const auto write = [&](const char* what, std::uint64_t address, Bytes bytes, std::size_t room) {
    bytes.resize(std::min(bytes.size(), room));
    const int error = Transfer(Direction::kToSender, request.thread, address, bytes.data(), bytes.size());
    if (error == 0) return true;
    return Note(problem, error == ESRCH ? ESRCH : EFAULT,
                Format("the answer's %s cannot be written: %s", what, std::strerror(error)));
  };
  for (std::size_t i = 0; i < request.buffers.size() && i < answer.buffers.size(); ++i) {
    const GateBuffer& buffer = request.buffers[i];
    if (buffer.Writable() && !write("buffer", buffer.address, answer.buffers[i], buffer.size)) return false;
  }
  const std::uint64_t base = request.address;
  if (!write("inline data", base + kHeaderSize, answer.inline_data, request.inline_data.size())) return false;
  Bytes status;
  AppendU32(status, answer.status);
  return write("status", base + 4, status, status.size());
}

}  // namespace qel::host
