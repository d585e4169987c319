// Clients of the local socket, the log's folder, /proc, the clock and the message bus, not as they should be.

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "attack/attack.h"

namespace qel::test {
namespace {

// The name of the agent's local socket, as long as it must be: behind a zero byte and followed by zero bytes.
constexpr std::string_view kSocketName("\0corvessan-tdl-socket", 21);

sockaddr_un Address(std::string_view path) {
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// One that takes connections and never answers.
int ListenAt(std::string_view path) {
  const sockaddr_un address = Address(path);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(listen(listener, 100), 0);
  return listener;
}

class SurroundingsAttack : public AttackTest {
 protected:
  void ConnectLocally(int times) {
    const sockaddr_un address = Address(kSocketName);
    std::vector<int> held;
    for (int connected = 0; connected < times && Lives();) {
      const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
      if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {  // too many wait already
        std::this_thread::sleep_for(100us);
      } else if (++connected; Random(20) == 0 && held.size() < 500) {
        held.push_back(client);  // it never reads
        continue;
      } else if (Random(3) == 0) {
        send(client, "noise", 5, MSG_NOSIGNAL);
      }
      close(client);
    }
    ServeBeacon();
    std::ranges::for_each(held, [](int client) { close(client); });
  }
};

TEST_F(SurroundingsAttack, NoRoomForTheLogAndTenThousandLocalClients) {
  ASSERT_EQ(mount("none", "/var/log", "tmpfs", 0, "size=64k"), 0);
  std::ofstream("/var/log/filler") << std::string(64 << 10, 'x');
  Start();
  ConnectLocally(Scaled(10'000));
  TearDown();
  agent_.reset();
  umount2("/var/log", MNT_DETACH);
}

TEST_F(SurroundingsAttack, AClockThatJumpsABusThatIsSilentAndATakenAddress) {
  const TempDir files;
  const std::string path = files.Path() / "bus";
  const int listeners[] = {ListenAt(path), ListenAt(kSocketName)};
  const std::string clock = files.Write("clock", "@2037-02-03 12:00:00");
  Start({{"LD_PRELOAD", "/usr/$LIB/faketime/libfaketimeMT.so.1"},
         {"FAKETIME_TIMESTAMP_FILE", clock},
         {"FAKETIME_NO_CACHE", "1"},
         {"FAKETIME_DONT_FAKE_MONOTONIC", "1"},
         {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + path}});
  EXPECT_EQ(LogCount("Error: failed to bind socket: Address already in use"), 1);
  EXPECT_TRUE(LogLines().at(0).starts_with("02-03 12:")) << "the clock is the real one";
  for (int i = 0; i < Scaled(2); ++i) {
    constexpr const char* kJumps[] = {"+1d", "-1d", "-20000d", "+0", "+9000d", "+1", "-1"};
    files.Write("clock", kJumps[Random(7)]);
    ServeBeacon();
  }
  std::ranges::for_each(listeners, [](int listener) { close(listener); });
}

}  // namespace
}  // namespace qel::test
