// An agent that lacks memory or descriptors. Sanitizers need too much of both.

#include <sys/resource.h>

#include "attack/attack.h"

namespace qel::test {
namespace {

class LimitsAttack : public AttackTest {
 protected:
  void SetUp() override {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "LEFT OUT with this sanitizer";
#endif
  }

  // Starts an agent under a limit of ulimit(1). It serves, or ends in good order.
  void ExpectServiceOrEnd(const std::string& limit) {
    ClearLog();
    const std::uint64_t finished = session_.Count(MessageKind::kFinishEnum);
    agent_ = std::make_unique<Agent>(session_.Server().Display(), std::vector<std::string>{"-r", "200"},
                                     EnvironmentChanges{},
                                     std::vector<std::string>{"sh", "-c", "ulimit " + limit + " && exec \"$@\"", "sh"});
    EXPECT_TRUE(WaitUntil(
        [&] {
          return !Lives() || session_.Count(MessageKind::kFinishEnum) > finished ||
                 LogContains("Warning: Tools Service: can't initialize all components");
        },
        kSoon));
    if (Lives() && session_.ToolActive().value_or(false)) {
      ServeBeacon();
    }
    std::printf("ulimit %s: %s\n", limit.c_str(), Lives() ? "serves" : "ends");
    agent_->Stop();
    agent_.reset();
  }

  // A command and a window. Some of it fails for want of what is short, as long as that lasts.
  void Use(std::uint32_t icon_side) {
    session_.Host().Send(Random(2) == 0 ? *host::StartCommand(host::StartLayout::kFields, "/bin/true", {"a", "//Mac/a"})
                                        : host::HideCommand(std::vector<std::uint32_t>(1'000'000, 1), {}, 1, 2));
    const Window window = session_.Open({.title = "large", .icon = std::vector(2 + icon_side * icon_side, icon_side)});
    Claim({window}, 100'000);
    EXPECT_TRUE(AllCommandsFetched());
    session_.Client().Close(window);
  }
};

TEST_F(LimitsAttack, AtTheStart) {
  for (int descriptors = 16; descriptors <= 64; descriptors += Scaled(1) > 1 ? 1 : 48) {
    ExpectServiceOrEnd("-n " + std::to_string(descriptors));
  }
  for (int mebibytes = 60; mebibytes <= 250; mebibytes += Scaled(1) > 1 ? 2 : 190) {
    ExpectServiceOrEnd("-v " + std::to_string(mebibytes << 10));
  }
}

TEST_F(LimitsAttack, FewDescriptorsLater) {
  Start();
  rlimit earlier{};
  prlimit(agent_->Pid(), RLIMIT_NOFILE, nullptr, &earlier);
  for (int i = 0; i < Scaled(1); ++i) {
    const rlimit few{.rlim_cur = before_.descriptors - 2 + Random(4), .rlim_max = earlier.rlim_max};
    prlimit(agent_->Pid(), RLIMIT_NOFILE, &few, nullptr);
    Use(10);
  }
  prlimit(agent_->Pid(), RLIMIT_NOFILE, &earlier, nullptr);
}

// The address space may grow by a few mebibytes only. The library that talks with the X server gives the connection up
// when it gets no memory for an answer; then the agent ends as at the server's end.
TEST_F(LimitsAttack, LittleMemoryLater) {
  Start();
  const auto size = static_cast<rlim_t>(ReadNumbers(ProcFolder(agent_->Pid()) / "status")["VmSize"]) << 10;
  for (int i = 0; i < Scaled(1) && Lives(); ++i) {
    const rlimit little{.rlim_cur = size + (Random(40) << 18), .rlim_max = RLIM_INFINITY};
    prlimit(agent_->Pid(), RLIMIT_AS, &little, nullptr);
    Use(1000);
  }
  if (Lives()) {
    const rlimit none{.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
    prlimit(agent_->Pid(), RLIMIT_AS, &none, nullptr);
    return;
  }
  std::puts("the agent has ended for want of memory");
  EXPECT_TRUE(LogContains("Tools Service: XIOError received"));
  agent_->ExpectOrderlyEnd();
  agent_.reset();
}

}  // namespace
}  // namespace qel::test
