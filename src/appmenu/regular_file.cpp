#include "appmenu/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace qel {

RegularFile::RegularFile(const std::string& path) {
  // Without O_NONBLOCK, opening a FIFO would wait for somebody who writes.
  descriptor_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  struct stat status {};
  if (descriptor_ >= 0 && fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode)) {
    size_ = left_ = static_cast<std::size_t>(status.st_size);
  }
}

RegularFile::~RegularFile() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

std::size_t RegularFile::Read(std::span<char> buffer) {
  std::size_t filled = 0;
  const std::size_t wanted = std::min(buffer.size(), left_);
  while (filled < wanted) {
    const ssize_t got = read(descriptor_, buffer.data() + filled, wanted - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      left_ = filled;  // shorter than it was, or unreadable: this was all
      break;
    }
    filled += static_cast<std::size_t>(got);
  }
  left_ -= filled;
  return filled;
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit) {
  RegularFile file(path);
  if (!file.is_open() || file.size() > limit) {
    return std::nullopt;
  }
  std::string content(file.size(), '\0');
  content.resize(file.Read(content));
  return content;
}

}  // namespace qel
