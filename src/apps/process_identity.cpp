#include "apps/process_identity.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/file_descriptor.h"

namespace qel {
namespace {

struct IgnoredExecutable {
  std::string_view base_name;
  bool is_window_manager = false;
  std::string_view command_line = {};  // ignored only with this command line; empty: always ignored
};

constexpr IgnoredExecutable kIgnoredExecutables[] = {
    {"kwin", true},     {"hovagent32"},     {"hovagent64"},
    {"unity-2d-panel"}, {"unity-2d-shell"}, {"plasma-desktop"},
    {"plasmashell"},    {"wrapper-1.0"},    {"kdeinit4", false, "kdeinit4: plasma-desktop [kdeinit]"},
};

constexpr std::size_t kPathSize = 4096;

std::string ProcPath(std::int32_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + "/" + file;
}

// Reads at most `limit` bytes of a file and returns them up to the first NUL; nullopt when it cannot be opened.
std::optional<std::string> ReadBeginning(const std::string& path, std::size_t limit) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) {
    return std::nullopt;
  }
  std::string text(limit, '\0');
  ssize_t length = 0;
  do {
    length = read(file.Get(), text.data(), limit);
  } while (length < 0 && errno == EINTR);
  text.resize(length > 0 ? strnlen(text.data(), static_cast<std::size_t>(length)) : 0);
  return text;
}

}  // namespace

std::string BaseName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

std::string ExecutablePath(std::int32_t pid) {
  std::array<char, kPathSize> target;
  const ssize_t length = readlink(ProcPath(pid, "exe").c_str(), target.data(), target.size() - 1);
  if (length > 0) {
    return {target.data(), static_cast<std::size_t>(length)};
  }
  std::string name = ReadBeginning(ProcPath(pid, "comm"), kPathSize - 1).value_or("");
  if (name.ends_with('\n')) {
    name.pop_back();
  }
  return name;
}

bool IsIgnoredProcess(std::int32_t pid, bool& is_window_manager) {
  is_window_manager = false;
  const std::string base_name = BaseName(ExecutablePath(pid));
  const auto* const row =
      std::find_if(std::begin(kIgnoredExecutables), std::end(kIgnoredExecutables),
                   [&base_name](const IgnoredExecutable& ignored) { return ignored.base_name == base_name; });
  if (row == std::end(kIgnoredExecutables)) {
    return false;
  }
  is_window_manager = row->is_window_manager;
  if (row->command_line.empty()) {
    return true;
  }
  // Reads one byte more than the expected text, so that a longer command line is not equal.
  return ReadBeginning(ProcPath(pid, "cmdline"), row->command_line.size() + 1) == row->command_line;
}

}  // namespace qel
