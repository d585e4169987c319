// The real device file, driven by a client that writes addresses of requests.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "gate_test.h"

namespace qel::host::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

struct Answer {
  int error;  // errno value of the write; 0 if it took everything
  std::uint32_t status;
  bool replied;  // something was written into the reply area
};

// A client that says one thing, "the enumeration is finished", right or wrong.
class Client {
 public:
  ~Client() {
    munmap(memory_, kMemory);
    close(device_);
  }
  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  int Write(const void* bytes, std::size_t size) const {
    const ssize_t written = write(device_, bytes, size);
    return written < 0 ? errno : static_cast<std::size_t>(written) == size ? 0 : EIO;
  }
  int WriteAddress(std::uint32_t address) const { return Write(&address, sizeof address); }

  // Submits the request with some of its words changed: place and value.
  Answer Submit(std::initializer_list<std::pair<std::size_t, std::uint32_t>> changes = {}) const {
    const auto base = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(memory_));
    // Code, status, number of buffers, reserved; the two buffers; the block; the reply.
    const std::uint32_t request[22] = {0x8302, 0, 2 << 16, 0, base + 48, 0, 20, 0, base + 68, 0, 20, 1, 113, 2};
    std::ranges::copy(request, memory_);
    for (const auto& [place, value] : changes) memory_[place] = value;
    const int error = WriteAddress(base);
    return {error, memory_[1], std::any_of(memory_ + 17, memory_ + 22, [](std::uint32_t word) { return word != 0; })};
  }

 private:
  static constexpr std::size_t kMemory = 1 << 20;

  int device_ = open(GateDevice::kPath, O_WRONLY | O_CLOEXEC);
  std::uint32_t* memory_ = static_cast<std::uint32_t*>(
      mmap(nullptr, kMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0));
};

TEST_F(GateTest, MisbehavesAsTold) {
  const Client client;
  host_.faults().Add({.action = FaultAction::kResubmit, .times = 2});
  for (const FaultAction action : {FaultAction::kFail, FaultAction::kReject, FaultAction::kGarbage}) {
    host_.faults().Add({.action = action});
  }
  host_.faults().Add({.action = FaultAction::kWriteError, .error = ENXIO});
  EXPECT_EQ(client.Submit().status, kStatusResubmit);
  EXPECT_EQ(client.Submit({{1, kStatusResubmit}}).status, kStatusResubmit);
  EXPECT_EQ(host_.model().Snapshot().remarks, 0U);
  EXPECT_EQ(client.Submit({{12, 101}}).status, kStatusFailure);
  EXPECT_EQ(host_.model().Snapshot().remarks, 1U) << "the request came back changed";
  EXPECT_EQ(client.Submit().status, kStatusRejected);
  EXPECT_TRUE(client.Submit().replied);
  EXPECT_EQ(client.Submit().error, ENXIO);
  EXPECT_FALSE(client.Submit().replied);
  EXPECT_EQ(host_.model().Snapshot().violations, 0U);
  EXPECT_EQ(host_.model().Snapshot().Count(MessageKind::kFinishEnum), 2U) << "only these were taken";
}

TEST_F(GateTest, EndsADelayOnASignalOnlyIfTold) {
  struct sigaction quiet {};
  quiet.sa_handler = [](int) {};
  sigaction(SIGUSR1, &quiet, nullptr);
  const Client client;
  const auto submit_under_signal = [&](milliseconds delay) {
    host_.faults().SetDelay(delay);
    const std::uint64_t before = host_.model().Snapshot().messages;
    int error = -1;
    std::thread sender([&] { error = client.Submit().error; });
    EXPECT_TRUE(host_.WaitFor([&](const ModelState& s) { return s.messages > before; }, seconds(10)));
    pthread_kill(sender.native_handle(), SIGUSR1);
    sender.join();
    return error;
  };
  EXPECT_EQ(submit_under_signal(milliseconds(200)), 0);
  host_.faults().SetInterruptible(true);
  EXPECT_EQ(submit_under_signal(seconds(60)), EINTR);
}

TEST_F(GateTest, SurvivesBadWritesAndDeadClients) {
  const Client client;
  EXPECT_EQ(client.WriteAddress(0x10), EFAULT);
  EXPECT_EQ(client.WriteAddress(0xFFFFFFF8), EFAULT);
  EXPECT_EQ(client.Write("12345678", 8), EINVAL);
  EXPECT_EQ(client.Submit({{6, 0xFFFFFFF0}}).error, EINVAL) << "the size";
  EXPECT_EQ(client.Submit({{6, 32 << 20}}).error, EFAULT) << "beyond what is mapped";
  EXPECT_EQ(client.Submit({{2, 65 << 16}}).error, EINVAL) << "the number of buffers";
  EXPECT_EQ(host_.model().Snapshot().violations, 6U);

  host_.faults().SetDelay(milliseconds(300));
  const pid_t child = fork();
  if (child == 0) {
    client.Submit();
    _exit(0);
  }
  EXPECT_TRUE(host_.WaitFor([](const ModelState& s) { return s.Count(MessageKind::kFinishEnum) == 1; }, seconds(10)));
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  host_.faults().Clear();
  EXPECT_EQ(client.Submit().status, kStatusSuccess);
}

TEST_F(GateTest, StopsWithAnswersWaitingAndStartsAgain) {
  host_.faults().SetDelay(seconds(600));
  const Client client;
  std::thread waiting([&] { EXPECT_EQ(client.Submit().error, 0); });
  ASSERT_TRUE(host_.WaitFor([](const ModelState& s) { return s.messages == 1; }, seconds(10)));
  host_.Stop();
  waiting.join();
  EXPECT_NE(access(GateDevice::kPath, F_OK), 0);
  host_.faults().Clear();
  std::string error;
  ASSERT_TRUE(host_.Start(error)) << error;
  EXPECT_EQ(Client().Submit().error, 0);
}

}  // namespace
}  // namespace qel::host::test
