#include "appmenu/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace qel {
namespace {

constexpr std::size_t kAskedAhead = std::size_t{32} << 10;  // most files are smaller
constexpr std::size_t kFirstBuffer = std::size_t{32} << 10;

bool IsRegular(int descriptor) {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

RegularFile::RegularFile(const std::string& path) {
  // Without O_NONBLOCK, opening a FIFO would wait for somebody who writes.
  descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  // readahead() serves regular files and, from Linux 6.6 on, disks: see Read().
  is_at_end_ = descriptor_ < 0 || (readahead(descriptor_, 0, kAskedAhead) != 0 && !IsRegular(descriptor_));
}

RegularFile::~RegularFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

RegularFile::RegularFile(RegularFile&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)),
      is_regular_(other.is_regular_),
      is_at_end_(std::exchange(other.is_at_end_, true)) {}

RegularFile& RegularFile::operator=(RegularFile&& other) noexcept {
  std::swap(descriptor_, other.descriptor_);
  std::swap(is_regular_, other.is_regular_);
  std::swap(is_at_end_, other.is_at_end_);
  return *this;
}

std::size_t RegularFile::size() {
  struct stat status {};
  is_regular_ = !is_at_end_ && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode);
  return is_regular_ ? static_cast<std::size_t>(status.st_size) : 0;
}

std::size_t RegularFile::Read(std::span<char> buffer) {
  std::size_t filled = 0;
  while (!is_at_end_ && filled < buffer.size()) {
    const std::size_t wanted = buffer.size() - filled;
    const ssize_t got = read(descriptor_, buffer.data() + filled, wanted);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    filled += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    is_at_end_ = got < static_cast<ssize_t>(wanted);
  }
  // A disk never ends within the first buffer.
  if (!is_at_end_ && !is_regular_ && !(is_regular_ = IsRegular(descriptor_))) {
    is_at_end_ = true;
    return 0;
  }
  return filled;
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit) {
  RegularFile file(path);
  if (!file.is_open()) {
    return std::nullopt;
  }
  std::string content;
  std::size_t size = 0;
  do {
    content.resize(std::max(kFirstBuffer, 2 * size));
    size += file.Read(std::span(content).subspan(size));
  } while (size == content.size() && size <= limit);
  if (size > limit) {
    return std::nullopt;
  }
  content.resize(size);
  content.shrink_to_fit();
  return content;
}

}  // namespace qel
