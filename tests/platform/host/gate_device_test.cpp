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

TEST_F(GateTest, MisbehavesAsTold) {
  LowMemoryClient client;
  host_.faults().Add({.action = FaultAction::kResubmit, .times = 3, .kind = MessageKind::kAddRun});
  EXPECT_EQ(client.SubmitUntilTaken(ToolStateRequest(true)).status, kStatusSuccess);
  EXPECT_EQ(client.SubmitUntilTaken(AddRunRequest(1, 2, "t", 0, 0, false)).status, kStatusSuccess);
  EXPECT_EQ(host_.model().Snapshot().messages, 5U);
  EXPECT_EQ(host_.model().Snapshot().Count(MessageKind::kAddRun), 1U);

  for (const FaultAction action : {FaultAction::kFail, FaultAction::kReject, FaultAction::kGarbage}) {
    host_.faults().Add({.action = action});
  }
  host_.faults().Add({.action = FaultAction::kWriteError, .error = EIO});
  EXPECT_EQ(client.Submit(FinishEnumRequest()).status, kStatusFailure);
  EXPECT_EQ(client.Submit(FinishEnumRequest()).status, kStatusRejected);
  EXPECT_NE(client.Submit(FinishEnumRequest()).buffers[1], Bytes(20));
  EXPECT_EQ(client.Submit(FinishEnumRequest()).error, EIO);
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
  EXPECT_EQ(client.Write(Words({0x10})), EFAULT);
  EXPECT_EQ(client.Write(Words({0xFFFFFFF8})), EFAULT);
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
