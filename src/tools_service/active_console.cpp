#include "tools_service/active_console.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "base/file_descriptor.h"

namespace qel {
namespace {

constexpr std::size_t kMaxName = 5;  // "tty63"

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

}  // namespace

std::string ReadActiveConsole(const std::string& path) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char name[kMaxName];
  const ssize_t size = read(file.Get(), name, sizeof name);
  const std::string text(name, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  const auto end = std::find_if(text.rbegin(), text.rend(), IsDigit).base();
  return {text.begin(), end};
}

std::string CurrentConsole(const std::string& root) {
  std::string console = ReadActiveConsole(root + "/console/active");
  if (console == "tty0") {
    console = ReadActiveConsole(root + "/tty0/active");
  }
  return console;
}

}  // namespace qel
