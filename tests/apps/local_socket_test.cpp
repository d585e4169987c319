// Quick starts and stops of the local socket. The session tests check what clients get.
#include "apps/local_socket.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <thread>

#include "apps/service_thread.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

FileDescriptor NewSocket() {
  return FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool Connects(const FileDescriptor& client) {
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "\0corvessan-tdl-socket"};
  return connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

TEST(LocalSocketTest, MayBeStoppedAtAnyMomentAndStartedAgain) {
  // In a network namespace of its own, because an agent on this machine uses the same address.
  ASSERT_TRUE(unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0);
  const LogCapture log;
  RunningAppRegistry registry;
  LocalSocket local(registry);
  ServiceThread thread;
  const auto start = [&] {
    local.ClearStop();
    ASSERT_EQ(thread.Start("tdl.sock", [&] { local.LocalSocketThread(); }), 0);
  };
  const auto stop = [&] {
    local.Stop();
    thread.Join();
  };
  const auto is_served = [] { return Connects(NewSocket()); };
  for (int round = 0; round < 20; ++round) {
    start();
    EXPECT_TRUE(round % 2 == 0 || WaitUntil(is_served));
    stop();
    EXPECT_FALSE(is_served());
  }
  start();
  EXPECT_TRUE(WaitUntil(is_served));
  const FileDescriptor clients[] = {NewSocket(), NewSocket()};  // accept() already has a descriptor for the first
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_TRUE(Connects(clients[0]) && Connects(clients[1]));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the thread now pauses after the failed accept()
  const auto asked = std::chrono::steady_clock::now();
  stop();
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::milliseconds(500));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(log.Count("Warning: failed to accept connection: Too many open files"), 1);
}

}  // namespace
}  // namespace qel::test
