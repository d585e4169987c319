// Opens the gate's link without a device and sends messages: one per argument "LENGTH:CAPACITY", with bytes counting up
// from 1. Prints a line for each: result, last status, and the reply in hexadecimal.
#include <algorithm>
#include <cstdio>
#include <vector>

#include "tools_gate/link.h"

int main(int argc, char** argv) {
  qel::TgLink link;
  link.channel->open_device = [](int&) { return qel::kTgSubmitNoDevice; };
  if (const int result = TgLinkOpen(link); result != qel::kTgSuccess) {
    std::printf("open %d\n", result);
    return 0;
  }
  for (int i = 1; i < argc; ++i) {
    unsigned length = 0;
    unsigned capacity = 0;
    if (std::sscanf(argv[i], "%u:%u", &length, &capacity) != 2) {
      return 2;
    }
    std::vector<std::byte> data(std::max(length, capacity));
    for (unsigned at = 0; at < length; ++at) {
      data[at] = static_cast<std::byte>(at + 1);
    }
    std::uint32_t reply_length = 0;
    const int result = TgLinkSendMessage(link, data.data(), length, capacity, &reply_length);
    std::printf("%d %d ", result, link.last_status);
    for (std::size_t at = 0; at < reply_length; ++at) {
      std::printf("%02x", std::to_integer<unsigned>(data[at]));
    }
    std::printf("\n");
    std::fflush(stdout);
  }
  return TgLinkClose(link);
}
