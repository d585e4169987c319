#include "tools_gate/shared_folders.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/owner.h"

namespace qel {
namespace {

constexpr std::string_view kPrefixes[] = {"//.qsf/", "//Mac/"};
constexpr std::string_view kFileSystemType = "qel_fs";

// A host path without its prefix.
struct SharedPath {
  std::string_view share;
  std::string_view rest;  // the part from the slash after the share, or empty
};

// Returns false when it is not the path of a shared folder.
bool SplitSharedPath(std::string_view path, SharedPath& result) {
  for (const std::string_view prefix : kPrefixes) {
    if (path.starts_with(prefix)) {
      path.remove_prefix(prefix.size());
      result.share = path.substr(0, path.find('/'));
      result.rest = path.substr(result.share.size());
      return true;
    }
  }
  return false;
}

bool IsSeparator(char c) {
  return c == ' ' || c == '\t';
}

// The decoded mount point when this line of the mount table belongs to the share, else null.
const char* MountPointIn(char* line, std::string_view share) {
  char* const device = NextMountField(line);
  char* const mount_point = NextMountField(line);
  const char* const type = NextMountField(line);
  if (type == nullptr || type != kFileSystemType) {
    return nullptr;
  }
  UnescapeMountField(device, std::strlen(device) + 1);
  if (!std::string_view(device).starts_with(share)) {
    return nullptr;
  }
  UnescapeMountField(mount_point, std::strlen(mount_point) + 1);
  return mount_point;
}

// Lines of a text file, of any length.
class LineReader {
 public:
  explicit LineReader(const char* path) : file_(std::fopen(path, "re")) {}

  bool IsOpen() const { return file_ != nullptr; }

  // The next line without its newline; null at the end of the file. The caller may change it, and it is valid until the
  // next call.
  char* Next() {
    char* line = line_.release();
    const ssize_t length = getline(&line, &capacity_, file_.get());
    line_.reset(line);
    if (length < 0) {
      return nullptr;
    }
    if (length > 0 && line[length - 1] == '\n') {
      line[length - 1] = '\0';
    }
    return line;
  }

 private:
  Owner<FILE, std::fclose> file_;
  Owner<char, std::free> line_;
  std::size_t capacity_ = 0;
};

}  // namespace

SharedFolderStatus ResolveSharedFolderPath(std::span<char> out, const char* path, const char* mount_table) {
  const auto fits = [&](std::size_t length) { return length < out.size(); };

  SharedPath shared;
  if (!SplitSharedPath(path, shared)) {
    const std::size_t length = std::strlen(path);
    if (!fits(length)) {
      return SharedFolderStatus::kTooLong;
    }
    std::memcpy(out.data(), path, length + 1);
    return SharedFolderStatus::kResolved;
  }

  LineReader mounts(mount_table);
  if (!mounts.IsOpen()) {
    return SharedFolderStatus::kNotResolved;
  }
  const char* mount_point = nullptr;
  while (mount_point == nullptr) {
    char* const line = mounts.Next();
    if (line == nullptr) {
      return SharedFolderStatus::kNotResolved;
    }
    mount_point = MountPointIn(line, shared.share);
  }

  const std::size_t length = std::strlen(mount_point);
  if (!fits(length)) {
    return SharedFolderStatus::kNotResolved;
  }
  std::memcpy(out.data(), mount_point, length);
  std::ranges::fill(out.subspan(length), '\0');
  if (shared.rest.empty()) {
    return SharedFolderStatus::kResolved;
  }
  if (!fits(length + shared.rest.size())) {
    return SharedFolderStatus::kTooLong;
  }
  std::ranges::copy(shared.rest, out.begin() + static_cast<std::ptrdiff_t>(length));
  return SharedFolderStatus::kResolved;
}

void UnescapeMountField(char* text, std::size_t length) {
  constexpr std::size_t kEscapeSize = 4;
  if (length == 0) {
    return;
  }
  const std::size_t end = length - 1;  // the position of the terminating NUL
  std::size_t to = 0;
  std::size_t from = 0;
  while (from < end) {
    if (text[from] == '\\') {
      if (end - from < kEscapeSize) {
        break;
      }
      const int value = (text[from + 1] - '0') * 64 + (text[from + 2] - '0') * 8 + (text[from + 3] - '0');
      text[to++] = static_cast<char>(static_cast<unsigned char>(value));
      from += kEscapeSize;
    } else {
      text[to++] = text[from++];
    }
  }
  std::memmove(text + to, text + from, length - from);
}

char* NextMountField(char*& cursor) {
  while (IsSeparator(*cursor)) {
    ++cursor;
  }
  if (*cursor == '\0') {
    return nullptr;
  }
  char* const field = cursor;
  while (*cursor != '\0' && !IsSeparator(*cursor)) {
    ++cursor;
  }
  if (*cursor != '\0') {
    *cursor++ = '\0';
  }
  return field;
}

}  // namespace qel
