#include "apps/local_socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstring>
#include <optional>

#include "apps/service_thread.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

constexpr const char* kName = "corvessan-tdl-socket";

FileDescriptor NewSocket() {
  return FileDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

bool ConnectTo(const FileDescriptor& client, socklen_t address_size = sizeof(sockaddr_un)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path + 1, kName);
  return connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), address_size) == 0;
}

FileDescriptor Connect() {
  FileDescriptor client = NewSocket();
  return ConnectTo(client) ? std::move(client) : FileDescriptor();
}

// The number that a client is told, if the stream holds exactly that.
std::optional<std::uint32_t> Ask() {
  const FileDescriptor client = Connect();
  std::uint32_t count = 0;
  if (!client.IsOpen() || recv(client.Get(), &count, sizeof count, MSG_WAITALL) != sizeof count) {
    return std::nullopt;
  }
  char more = 0;
  return recv(client.Get(), &more, 1, 0) == 0 ? std::optional(count) : std::nullopt;
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
    ASSERT_TRUE(WaitUntil([] { return Connect().IsOpen(); }));
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
  Start();
  EXPECT_EQ(Ask(), 2U);
  EXPECT_FALSE(ConnectTo(NewSocket(), offsetof(sockaddr_un, sun_path) + 1 + 20)) << "only the whole address counts";
  const FileDescriptor silent = Connect();  // never reads
  for (int i = 0; i < 100; ++i) {
    Connect();  // vanishes
    ASSERT_EQ(Ask(), 2U) << i;
  }
  LocalSocket second(registry_);
  second.LocalSocketThread();
  EXPECT_EQ(log_.Count("Error: failed to bind socket: Address already in use"), 1) << "that of the second one";
  registry_.ClearRegistry();
  EXPECT_EQ(Ask(), 0U);
}

TEST_F(LocalSocketTest, StopsAtAnyMomentAndStartsAgain) {
  for (int round = 0; round < 20; ++round) {
    socket_.ClearStop();
    thread_.Start("tdl.sock", [this] { socket_.LocalSocketThread(); });
    ASSERT_TRUE(round % 2 == 0 || WaitUntil([] { return Connect().IsOpen(); }));
    Stop();
    EXPECT_FALSE(Connect().IsOpen());
  }
}

// Without descriptors every accept() fails at once; the thread must neither spin nor delay its end.
TEST_F(LocalSocketTest, RestsWhenDescriptorsRunOut) {
  const TempDir files;
  SetLogDirectory(files.Path().c_str());
  Start();
  EXPECT_EQ(Ask(), 0U);  // and the thread waits in accept() again, with a number taken for the next client
  const FileDescriptor log(open((files.Path() / "corvessan.log").c_str(), O_RDONLY | O_CLOEXEC));
  const auto logged = [&] { return lseek(log.Get(), 0, SEEK_END); };
  const auto before = logged();

  const FileDescriptor clients[] = {NewSocket(), NewSocket()};
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  for (const FileDescriptor& client : clients) {
    EXPECT_TRUE(ConnectTo(client));
  }
  EXPECT_TRUE(WaitUntil([&] { return logged() > before; }));
  const auto start = std::chrono::steady_clock::now();
  const auto first = logged();
  Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(500));
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_LT(first - before, 200) << "one line, then a rest";
}

}  // namespace
}  // namespace qel::test
