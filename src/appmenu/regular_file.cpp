#include "appmenu/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace qel {
namespace {

constexpr std::size_t kAskedAhead = std::size_t{32} << 10;  // most files are smaller
constexpr std::size_t kFirstBuffer = std::size_t{32} << 10;
constexpr std::size_t kSmallestPage = 4096;

bool IsRegular(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

RegularFile::RegularFile(const std::string& path) : RegularFile(AT_FDCWD, path.c_str()) {}

RegularFile::RegularFile(int folder, const char* name)
    // Without O_NONBLOCK, opening a FIFO would wait for somebody who writes.
    : descriptor_(openat(folder, name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)),
      lacks_descriptor_(descriptor_ < 0 && (errno == EMFILE || errno == ENFILE)),
      is_at_end_(descriptor_ < 0) {}

RegularFile::~RegularFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

RegularFile::RegularFile(RegularFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      lacks_descriptor_(other.lacks_descriptor_),
      is_readable_(other.is_readable_),
      is_regular_(other.is_regular_),
      is_at_end_(std::exchange(other.is_at_end_, true)),
      position_(other.position_) {}

RegularFile& RegularFile::operator=(RegularFile&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(lacks_descriptor_, other.lacks_descriptor_);
  std::swap(is_readable_, other.is_readable_);
  std::swap(is_regular_, other.is_regular_);
  std::swap(is_at_end_, other.is_at_end_);
  std::swap(position_, other.position_);
  return *this;
}

std::size_t RegularFile::size() {
  struct stat status {};
  is_regular_ = is_readable_ = !is_at_end_ && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
  // The size of a large file does not fit into the numbers of a 32-bit program.
  const auto size = static_cast<std::uint64_t>(status.st_size);
  return is_regular_ ? static_cast<std::size_t>(std::min<std::uint64_t>(size, SIZE_MAX)) : 0;
}

std::size_t RegularFile::Read(std::span<char> buffer) {
  if (!is_at_end_ && !is_readable_) {
    is_regular_ = is_readable_ = IsRegular(descriptor_);
    is_at_end_ = !is_readable_;
  }
  return Fill(buffer, 0);
}

std::optional<std::size_t> RegularFile::ReadCached(std::span<char> buffer, bool& tells) {
  if (is_at_end_) {
    return 0;
  }
  if (!tells) {
    // This serves regular files and, from Linux 6.6 on, disks.
    is_readable_ = readahead(descriptor_, 0, kAskedAhead) == 0;
    return std::nullopt;
  }
  const iovec part{.iov_base = buffer.data(), .iov_len = buffer.size()};
  const ssize_t got = preadv2(descriptor_, &part, 1, /*offset=*/0, RWF_NOWAIT);
  if (got < 0) {
    is_readable_ = errno == EAGAIN;  // the system has begun to fetch it
    tells = errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL;
    return std::nullopt;
  }
  // Nothing without positions came so far: no FIFO, no terminal.
  is_readable_ = true;
  position_ = static_cast<std::size_t>(got);
  // Between two pages it may be that the rest is not in memory.
  is_at_end_ = position_ < buffer.size() && (position_ == 0 || position_ % kSmallestPage != 0);
  return Fill(buffer, position_);
}

// Reads on behind what the buffer has. Returns what it has then.
std::size_t RegularFile::Fill(std::span<char> buffer, std::size_t filled) {
  while (!is_at_end_ && filled < buffer.size()) {
    const std::size_t wanted = buffer.size() - filled;
    const ssize_t got = pread(descriptor_, buffer.data() + filled, wanted, static_cast<off_t>(position_));
    if (got < 0 && errno == EINTR) {
      continue;
    }
    const auto taken = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    filled += taken;
    position_ += taken;
    is_at_end_ = taken < wanted;
  }
  // A disk never ends within the first buffer.
  if (!is_at_end_ && !is_regular_ && !(is_regular_ = IsRegular(descriptor_))) {
    is_at_end_ = true;
    return 0;
  }
  return filled;
}

FileOpener::~FileOpener() {
  if (folder_ >= 0) {
    close(folder_);
  }
}

RegularFile FileOpener::Open(const char* path) {
  const char* const slash = std::strrchr(path, '/');
  const char* const name = slash != nullptr ? slash + 1 : path;
  if (const std::string_view folder(path, name); folder != folder_path_) {
    if (folder_ >= 0) {
      close(std::exchange(folder_, -1));
    }
    folder_path_ = folder;
    return RegularFile(AT_FDCWD, path);
  }
  if (folder_ < 0) {
    folder_ = open(folder_path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  return folder_ >= 0 ? RegularFile(folder_, name) : RegularFile(AT_FDCWD, path);
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit) {
  RegularFile file(path);
  if (!file.is_open()) {
    return std::nullopt;
  }
  std::string content;
  // A thread keeps for ever what it has used once of its stack.
  const auto memory = std::make_unique_for_overwrite<char[]>(kFirstBuffer);
  const std::span part(memory.get(), kFirstBuffer);
  std::size_t got = 0;
  do {
    got = file.Read(part);
    content.append(part.data(), got);
  } while (got == part.size() && content.size() <= limit);
  if (content.size() > limit) {
    return std::nullopt;
  }
  return content;
}

}  // namespace qel
