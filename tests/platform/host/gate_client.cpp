// Sends the messages of an agent, and some unusual ones. Then it fetches commands until one says to quit an
// application. With the argument "bad" the messages are invalid.
#include <array>
#include <cstring>
#include <thread>

#include "log/log.h"
#include "tools_gate/guest_commands.h"
#include "tools_gate/link.h"
#include "tools_gate/little_endian.h"

int main(int argc, char** argv) {
  using namespace qel;  // NOLINT(google-build-using-namespace)
  SetLogDirectory(".");
  TgLink link;
  if (TgLinkOpen(link) != kTgSuccess || !TgDeviceHandleOpen()) {
    return 9;
  }
  const bool is_bad = argc > 1 && std::strcmp(argv[1], "bad") == 0;
  link.channel->sub_header_in_buffer ^= is_bad;
  TgRegisterService(link, "svc", "A title", 1, 0, nullptr, {});
  const GuestCommands guest([&](TgRequest& request) {
    if (is_bad) StoreU32(request.buffers[0].data + 8, 5);
    return TgDeviceHandleSubmit(request);
  });
  const IconImage pixels{.bytes = std::vector<std::byte>(16), .height = 2, .width = 2};
  const auto svg = std::as_bytes(std::span("<svg/>", 6));
  const AppMenuItem item{.path = "/apps/ed.desktop", .name = "Ed", .location = "Office", .modified = 0, .icon = svg};
  constexpr std::uint32_t kWindows[] = {0x46, 0x99};
  guest.GuestCmdToolState(true);
  guest.GuestCmdAppMenu({&item, 1});
  guest.GuestCmdAddRun(0x46, 7, "Editor", "/bin/ed", "A \"title\"", pixels, {});
  guest.GuestCmdAddRun(0x47, 7, "Editor", "/bin/ed", "second", pixels, {});
  guest.GuestCmdWindowTitle(0x47, 7, "by its number");
  guest.GuestCmdHiddenWindows(1, 2, kWindows);
  guest.GuestCmdToolState(false);
  guest.GuestCmdToolState(true);  // as when the console is regained; the host must keep its windows
  guest.GuestCmdFinishEnum();
  for (int tries = 0; tries < 3000; ++tries) {
    std::array<std::byte, 20> block{};
    std::array<std::byte, 4096> command{};
    StoreU32(block.data() + 4, kGuestCommandVersion);
    StoreU32(block.data() + 12, 0x80000008);
    guest.GuestCmdSend(block, command);
    if (LoadU32(command.data() + 8) != UINT32_MAX) {
      if (LoadU32(command.data()) == 1) guest.GuestCmdToolState(true);
      if (LoadU32(command.data()) == 107) return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return 8;
}
