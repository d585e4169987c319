#include "files/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>

namespace qel {
namespace {

constexpr std::size_t kFetchedAhead = std::size_t{32} << 10;  // most files are smaller
constexpr std::size_t kPart = std::size_t{32} << 10;
constexpr std::size_t kFilesAhead = 64;

}  // namespace

RegularFile::RegularFile(const std::string& path)
    // Without O_NONBLOCK, opening a FIFO would wait until another process opens it for writing.
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)),
      lacks_descriptor_(!file_.IsOpen() && (errno == EMFILE || errno == ENFILE)) {
  struct stat status {};
  if (fstat(file_.Get(), &status) == 0 && S_ISREG(status.st_mode)) {
    has_more_ = true;
    // In a 32-bit program the size of a large file does not fit into std::size_t.
    size_ = static_cast<std::size_t>(std::min<std::uint64_t>(static_cast<std::uint64_t>(status.st_size), SIZE_MAX));
  }
}

void RegularFile::FetchAhead() const {
  if (has_more_) {
    readahead(file_.Get(), 0, kFetchedAhead);
  }
}

std::size_t RegularFile::Read(std::span<char> buffer) {
  std::size_t filled = 0;
  while (has_more_ && filled < buffer.size()) {
    const std::size_t wanted = buffer.size() - filled;
    const ssize_t got = read(file_.Get(), buffer.data() + filled, wanted);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    filled += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
    has_more_ = got == static_cast<ssize_t>(wanted);
  }
  return filled;
}

void ForEachFileAhead(const std::vector<std::string>& paths,
                      const std::function<bool(std::size_t, RegularFile&)>& use) {
  std::deque<RegularFile> waiting;
  std::size_t next = 0;  // the index of the first waiting file
  const auto use_first = [&] {
    const bool more = use(next++, waiting.front());
    waiting.pop_front();
    return more;
  };
  for (const std::string& path : paths) {
    RegularFile file(path);
    while (!waiting.empty() && (file.lacks_descriptor() || waiting.size() == kFilesAhead)) {
      if (!use_first()) {
        return;
      }
      if (file.lacks_descriptor()) {
        file = RegularFile(path);
      }
    }
    file.FetchAhead();
    waiting.push_back(std::move(file));
  }
  while (!waiting.empty() && use_first()) {
  }
}

std::optional<std::string> ReadWholeFile(const std::string& path, std::size_t limit) {
  RegularFile file(path);
  if (!file.is_open()) {
    return std::nullopt;
  }
  std::string content;
  // Not on the stack: stack memory that a thread has used once stays with the thread.
  const auto memory = std::make_unique_for_overwrite<char[]>(kPart);
  const std::span part(memory.get(), kPart);
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
