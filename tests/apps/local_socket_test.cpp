#include "apps/local_socket.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <optional>

#include "apps/service_thread.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

FileDescriptor NewSocket() {
  return FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool ConnectTo(const FileDescriptor& client, socklen_t address_size = sizeof(sockaddr_un)) {
  constexpr char kName[] = "\0corvessan-tdl-socket";
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  std::copy(kName, std::end(kName), address.sun_path);
  return connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), address_size) == 0;
}

bool IsServed() {
  return ConnectTo(NewSocket());
}

// The number that a client is told, if the stream holds exactly that.
std::optional<std::uint32_t> Ask() {
  const FileDescriptor client = NewSocket();
  std::uint32_t answer[2];
  if (!ConnectTo(client) || recv(client.Get(), answer, sizeof answer, MSG_WAITALL) != sizeof answer[0]) {
    return std::nullopt;
  }
  return answer[0];
}

class LocalSocketTest : public ::testing::Test {
 protected:
  // A network namespace of its own, where that is allowed: an agent that runs on this machine has the same address.
  static void SetUpTestSuite() {
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
      std::puts("no network namespace: an agent that runs beside this test disturbs it");
    }
  }

  void Start() {
    socket_.ClearStop();
    ASSERT_EQ(thread_.Start("tdl.sock", [this] { socket_.LocalSocketThread(); }), 0);
  }
  ~LocalSocketTest() override { Stop(); }
  void Stop() {
    socket_.Stop();
    thread_.Join();
  }

  LogCapture log_;
  RunningAppRegistry registry_;
  LocalSocket socket_{registry_};
  ServiceThread thread_;
};

TEST_F(LocalSocketTest, TellsEveryClientTheNumberOfProcesses) {
  *registry_.Lock() = {{50, {{1, 2}, {3, 4}}}, {60, {{5, 6}}}};
  for (int round = 0; round < 20; ++round) {  // it may be stopped at any moment
    Start();
    ASSERT_TRUE(round % 2 == 0 || WaitUntil(IsServed));
    Stop();
    EXPECT_FALSE(IsServed());
  }
  Start();
  ASSERT_TRUE(WaitUntil(IsServed));
  EXPECT_FALSE(ConnectTo(NewSocket(), offsetof(sockaddr_un, sun_path) + 1 + 20)) << "only the whole address counts";
  const FileDescriptor silent = NewSocket();  // never reads
  EXPECT_TRUE(ConnectTo(silent));
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(IsServed()) << "this client vanishes";
    ASSERT_EQ(Ask(), 2U) << i;
  }
  LocalSocket second(registry_);
  second.LocalSocketThread();
  EXPECT_EQ(log_.Count("Error: failed to bind socket: Address already in use"), 1) << "that of the second one";
}

// Without descriptors every accept() fails at once; the thread must neither spin nor delay its end.
TEST_F(LocalSocketTest, RestsWhenDescriptorsRunOut) {
  const TempDir files;
  SetLogDirectory(files.Path().c_str());
  const auto logged = [&] { return std::filesystem::file_size(files.Path() / "corvessan.log"); };
  Start();
  ASSERT_TRUE(WaitUntil([] { return Ask() == 0U; }));  // and accept() has a number for the next client
  const FileDescriptor clients[] = {NewSocket(), NewSocket()};
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
  const auto before = logged();
  setrlimit(RLIMIT_NOFILE, &none);
  for (const FileDescriptor& client : clients) {
    EXPECT_TRUE(ConnectTo(client));
  }
  EXPECT_TRUE(WaitUntil([&] { return logged() > before; }));
  const auto start = std::chrono::steady_clock::now();
  EXPECT_LT(logged() - before, 200U) << "one line, then a rest";
  Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace
}  // namespace qel::test
