// The real device file, driven by clients that write addresses of requests.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "gate_test.h"
#include "low_memory_client.h"
#include "messages.h"

namespace qel::host::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

TEST_F(GateTest, FollowsAnAgentFromProbeToUnregistering) {
  LowMemoryClient client;
  ASSERT_TRUE(client.IsOpen()) << client.OpenError();
  for (const GateRequest& request :
       {ProbeRequest(), InBuffers(RegisterMessage("svc")), ToolStateRequest(true),
        AddRunRequest(7, 70, "one", 64, 64, false), AddRunRequest(7, 71, "two", 1, 1, true), FinishEnumRequest(),
        WindowTitleRequest(7, 71, Text16("new")), RmvRunRequest(7, 70), InBuffers(UnregisterMessage("svc")),
        ToolStateRequest(false)}) {
    const Submitted result = client.Submit(request);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.status, kStatusSuccess);
  }
  const ModelState state = host_.model().Snapshot();
  EXPECT_EQ(state.messages, 10U);
  EXPECT_EQ(state.violations + state.remarks, 0U);
  EXPECT_EQ(state.tool_active, false);
  EXPECT_TRUE(state.services.empty());
  EXPECT_EQ(state.WindowCount(), 1U);
  ASSERT_NE(state.FindTitle("new"), nullptr);
  EXPECT_EQ(state.FindTitle("new")->agent, getpid());
  EXPECT_EQ(host_.Opens(), 1U);
}

TEST_F(GateTest, AnswersTheProbeAsToldAndJudgesTheLayout) {
  host_.faults().SetProbeResult(-3);
  LowMemoryClient client;
  const Submitted probe = client.Submit(ProbeRequest());
  EXPECT_EQ(probe.status, kStatusSuccess);
  EXPECT_EQ(LoadU32(probe.inline_data, 20), static_cast<std::uint32_t>(-3));
  const Submitted service = client.Submit(Inline(RegisterMessage("svc")));
  EXPECT_EQ(LoadU32(service.inline_data, 20), 0U);
  EXPECT_EQ(host_.model().Snapshot().violations, 0U);
  client.Submit(InBuffers(UnregisterMessage("svc")));
  EXPECT_EQ(host_.model().Snapshot().violations, 1U);
}

TEST_F(GateTest, HandsOutCommandsAndLargeOnesInTwoSteps) {
  LowMemoryClient client;
  EXPECT_EQ(LoadU32(client.Submit(FetchRequest(false, 4096)).buffers[1], 8), UINT32_MAX);
  HostCommand large = RawCommand(Bytes(5000, 0xA5));
  host_.Send(ActivateWindowCommand(0x1234));
  host_.Send(large);
  const Bytes first = client.Submit(FetchRequest(false, 4096)).buffers[1];
  EXPECT_EQ(LoadU32(first, 0), 111U);
  EXPECT_NE(LoadU32(first, 8), UINT32_MAX);
  EXPECT_EQ(LoadU32(first, 16), 4U);
  EXPECT_EQ(LoadU32(first, 20), 0x1234U);
  const Bytes announced = client.Submit(FetchRequest(false, 4096)).buffers[1];
  EXPECT_EQ(LoadU32(announced, 0), 126U);
  EXPECT_EQ(LoadU32(announced, 20), 5000U);
  EXPECT_EQ(client.Submit(FetchRequest(true, 5000)).buffers[1], large.block);
  EXPECT_EQ(host_.CommandsWaiting(), 0U);
  EXPECT_EQ(host_.model().Snapshot().violations, 0U);
}

TEST_F(GateTest, MisbehavesAsTold) {
  LowMemoryClient client;
  host_.faults().Add({.action = FaultAction::kResubmit, .times = 3, .kind = MessageKind::kAddRun});
  EXPECT_EQ(client.SubmitUntilTaken(ToolStateRequest(true)).status, kStatusSuccess);
  EXPECT_EQ(client.SubmitUntilTaken(AddRunRequest(1, 2, "t", 0, 0, false)).status, kStatusSuccess);
  EXPECT_EQ(host_.model().Snapshot().messages, 5U);
  EXPECT_EQ(host_.model().Snapshot().Count(MessageKind::kAddRun), 1U);

  host_.faults().Add({.action = FaultAction::kFail});
  host_.faults().Add({.action = FaultAction::kReject});
  host_.faults().Add({.action = FaultAction::kWriteError, .error = EIO});
  host_.faults().Add({.action = FaultAction::kGarbage});
  EXPECT_EQ(client.Submit(FinishEnumRequest()).status, kStatusFailure);
  EXPECT_EQ(client.Submit(FinishEnumRequest()).status, kStatusRejected);
  EXPECT_EQ(client.Submit(FinishEnumRequest()).error, EIO);
  EXPECT_NE(client.Submit(FinishEnumRequest()).buffers[1], Bytes(20));
  EXPECT_EQ(client.Submit(FinishEnumRequest()).buffers[1], Bytes(20));
  EXPECT_EQ(host_.model().Snapshot().violations, 0U);

  // A request that comes back changed is noticed.
  host_.faults().Add({.action = FaultAction::kResubmit});
  client.Submit(RmvRunRequest(1, 2));
  client.Submit(RmvRunRequest(1, 3));
  EXPECT_NE(host_.model().Snapshot().remarks, 0U);

  host_.faults().RefuseOpens(EACCES);
  EXPECT_EQ(LowMemoryClient().OpenError(), EACCES);
}

// Through one descriptor, as two threads of one agent use it: a fetch that waits holds up nobody.
TEST_F(GateTest, LetsOneThreadsDelayNotHoldUpAnother) {
  host_.faults().SetDelay(seconds(2), MessageKind::kFetch);
  LowMemoryClient client;
  const auto begin = steady_clock::now();
  std::thread slow([&] {
    EXPECT_EQ(client.Submit(FetchRequest(false, 4096)).status, kStatusSuccess);
    EXPECT_GE(steady_clock::now() - begin, seconds(2));
  });
  ASSERT_TRUE(host_.WaitFor([](const ModelState& s) { return s.Count(MessageKind::kFetch) == 1; }, seconds(10)));
  LowMemoryClient other = client.Share();
  for (int i = 0; i < 50; ++i) EXPECT_EQ(other.Submit(FinishEnumRequest()).status, kStatusSuccess);
  EXPECT_LT(steady_clock::now() - begin, seconds(2)) << "the fetch's delay is over already: nothing was shown";
  slow.join();
}

TEST_F(GateTest, EndsADelayOnASignalOnlyIfTold) {
  struct sigaction quiet {};
  quiet.sa_handler = [](int) {};
  sigaction(SIGUSR1, &quiet, nullptr);
  LowMemoryClient client;
  const auto submit_under_signal = [&](milliseconds delay) {
    host_.faults().SetDelay(delay);
    const std::uint64_t before = host_.model().Snapshot().messages;
    Submitted result;
    std::thread sender([&] { result = client.Submit(FinishEnumRequest()); });
    EXPECT_TRUE(host_.WaitFor([&](const ModelState& s) { return s.messages > before; }, seconds(10)));
    pthread_kill(sender.native_handle(), SIGUSR1);
    sender.join();
    return result;
  };
  EXPECT_EQ(submit_under_signal(milliseconds(200)).error, 0);
  host_.faults().SetInterruptible(true);
  EXPECT_EQ(submit_under_signal(seconds(60)).error, EINTR);
}

TEST_F(GateTest, SurvivesBadWritesAndDeadClients) {
  LowMemoryClient client;
  const auto address = [](std::uint32_t value) {
    Bytes bytes;
    AppendU32(bytes, value);
    return bytes;
  };
  EXPECT_EQ(client.Write(address(0x10)), EFAULT);
  EXPECT_EQ(client.Write(address(0xFFFFFFF8)), EFAULT);
  EXPECT_EQ(client.Write(Bytes(8)), EINVAL);
  GateRequest lying = FinishEnumRequest();
  lying.buffers[0].size = 0xFFFFFFF0;
  EXPECT_EQ(client.Submit(lying).error, EINVAL);
  lying.buffers[0].size = 32 << 20;  // beyond what is mapped
  EXPECT_EQ(client.Submit(lying).error, EFAULT);
  GateRequest crowded = FinishEnumRequest();
  crowded.buffers.resize(65, GateBuffer{});
  EXPECT_EQ(client.Submit(crowded).error, EINVAL);
  EXPECT_EQ(host_.model().Snapshot().violations, 6U);

  host_.faults().SetDelay(milliseconds(300));
  const pid_t child = fork();
  if (child == 0) {
    client.Submit(ToolStateRequest(true));
    _exit(0);
  }
  EXPECT_TRUE(host_.WaitFor([](const ModelState& s) { return s.Count(MessageKind::kToolState) == 1; }, seconds(10)));
  kill(child, SIGKILL);
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status));
  host_.faults().Clear();
  EXPECT_EQ(client.Submit(FinishEnumRequest()).status, kStatusSuccess);
}

TEST_F(GateTest, StopsWithAnswersWaitingAndStartsAgain) {
  host_.faults().SetDelay(seconds(600));
  LowMemoryClient client;
  std::thread waiting([&] { EXPECT_EQ(client.Submit(FinishEnumRequest()).error, 0); });
  ASSERT_TRUE(host_.WaitFor([](const ModelState& s) { return s.messages == 1; }, seconds(10)));
  host_.Stop();
  waiting.join();
  EXPECT_EQ(LowMemoryClient().OpenError(), ENOENT);
  host_.faults().Clear();
  std::string error;
  ASSERT_TRUE(host_.Start(error)) << error;
  EXPECT_EQ(LowMemoryClient().Submit(FinishEnumRequest()).status, kStatusSuccess);
}

}  // namespace
}  // namespace qel::host::test
