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

bool ConnectTo(const FileDescriptor& client) {
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "\0corvessan-tdl-socket"};
  return connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool IsServed() {
  return ConnectTo(NewSocket());
}

class LocalSocketTest : public ::testing::Test {
 protected:
  // A network namespace of its own, where that is allowed: an agent that runs on this machine has the same address.
  static void SetUpTestSuite() {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      std::puts("no network namespace: an agent that runs beside this test disturbs it");
    }
  }

  ~LocalSocketTest() override { Stop(); }
  void Start() {
    socket_.ClearStop();
    ASSERT_EQ(thread_.Start("tdl.sock", [this] { socket_.LocalSocketThread(); }), 0);
  }
  void Stop() {
    socket_.Stop();
    thread_.Join();
  }

  LogCapture log_;
  RunningAppRegistry registry_;
  LocalSocket socket_{registry_};
  ServiceThread thread_;
};

TEST_F(LocalSocketTest, ServesClientsThatVanishOrDoNotReadUntilItsStop) {
  for (int round = 0; round < 20; ++round) {  // it may be stopped at any moment
    Start();
    ASSERT_TRUE(round % 2 == 0 || WaitUntil(IsServed));
    Stop();
    EXPECT_FALSE(IsServed());
  }
  *registry_.Lock() = {{50, {{1, 2}, {3, 4}}}, {60, {{5, 6}}}};
  Start();
  const FileDescriptor client = NewSocket();  // does not read yet
  ASSERT_TRUE(WaitUntil([&] { return ConnectTo(client); }));
  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(IsServed());
  }
  std::uint32_t answer[2];
  EXPECT_EQ(recv(client.Get(), answer, sizeof answer, MSG_WAITALL), 4) << "the number of processes, and no more";
  EXPECT_EQ(answer[0], 2U);
  LocalSocket second(registry_);
  second.LocalSocketThread();
  EXPECT_EQ(log_.Count("Error: failed to bind socket: Address already in use"), 1);
}

// Without descriptors every accept() fails at once; the thread must neither spin nor delay its end.
TEST_F(LocalSocketTest, RestsWhenDescriptorsRunOut) {
  Start();
  ASSERT_TRUE(WaitUntil(IsServed));
  const FileDescriptor clients[] = {NewSocket(), NewSocket()};  // accept() has a number already for the first
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  for (const FileDescriptor& client : clients) {
    EXPECT_TRUE(ConnectTo(client));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = std::chrono::steady_clock::now();
  Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(log_.Count("Warning: failed to accept connection: Too many open files"), 1);
}

}  // namespace
}  // namespace qel::test
