// Lines of the log: the input is the level, the module up to a zero, and the text of the message.
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "log/log.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"

namespace {

using qel::fuzz::Expect;

constexpr std::size_t kTimeSize = 19;  // "MM-DD HH:MM:SS.mmm "
constexpr std::size_t kMaxText = 4094;

bool IsTime(std::string_view text) {
  constexpr std::string_view kPattern = "99-99 99:99:99.999 ";
  if (text.size() != kPattern.size()) {
    return false;
  }
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kPattern[i] == '9' ? text[i] < '0' || text[i] > '9' : text[i] != kPattern[i]) {
      return false;
    }
  }
  return true;
}

std::string Escaped(std::string_view text, std::size_t limit) {
  std::string result;
  while (!text.empty()) {
    const auto first = static_cast<unsigned char>(text[0]);
    const auto second = text.size() > 1 ? static_cast<unsigned char>(text[1]) : 0U;
    const bool is_c1 = first == 0xC2 && second >= 0x80 && second < 0xA0;
    std::string character(text.substr(0, is_c1 ? 2 : 1));
    text.remove_prefix(character.size());
    if (is_c1 || first < 0x20 || first == 0x7F) {
      std::string escapes;
      for (const char byte : character) {
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\x%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        escapes += escape;
      }
      character = escapes;
    }
    if (result.size() + character.size() > limit) {
      break;
    }
    result += character;
  }
  return result;
}

// The line without its time.
std::string LinePlainly(const std::string& module, std::int32_t level, std::string_view message) {
  const std::int32_t remainder = level % 16;
  std::string line = remainder >= 0 && remainder < 5 ? std::string(1, "FWIDT"[remainder]) + ' '
                                                     : "O(" + std::to_string(remainder) + ") ";
  char ids[64];
  std::snprintf(ids, sizeof ids, ":%d:%lx/ ", getpid(), static_cast<unsigned long>(syscall(SYS_gettid)));
  line += '/' + module + ids;
  line = line.substr(0, kMaxText - kTimeSize);
  std::size_t room = kMaxText - kTimeSize - line.size();
  const bool is_closed = message.size() <= room && message.ends_with('\n');
  message = message.substr(0, room);
  if (is_closed) {
    message.remove_suffix(1);
    --room;
  }
  return line + Escaped(message, room) + (is_closed ? "\n\n" : "\n");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const auto level = static_cast<std::int32_t>(input.Number());
  const std::string module = input.Text('\0');
  const std::string message = input.Text('\0');
  qel::fuzz::TakeLog();
  errno = E2BIG;
  qel::LogMessage("", module.c_str(), level, "%s", message.c_str());
  Expect(errno == E2BIG, "errno is kept");
  const std::string line = qel::fuzz::TakeLog();
  Expect(IsTime(std::string_view(line).substr(0, kTimeSize)), "the line begins with the time");
  Expect(line.size() <= kMaxText + 1, "the line is not longer than allowed");
  Expect(line.substr(kTimeSize) == LinePlainly(module, level, message), "the line is as the simple code makes it");
  return 0;
}
