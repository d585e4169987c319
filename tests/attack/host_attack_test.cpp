// A host whose commands and answers make no sense.

#include <cerrno>
#include <climits>

#include "attack/attack.h"
#include "host/bytes.h"

namespace qel::test {
namespace {

using host::FaultAction;

class HostAttack : public AttackTest {
 protected:
  void SetUp() override { Start(); }

  host::HostCommand Sensible() {
    switch (Random(5)) {
      case 0:
        return host::HideCommand(std::vector<std::uint32_t>(Random(3000), 1), {1, 2, 3}, 4, 5);
      case 1:
        return *host::StartCommand(host::StartLayout::kFields, "/bin/true",
                                   {"a", "//Mac/x", RandomBytes(Random(5000))});
      case 2:
        return *host::StartCommand(host::StartLayout::kFieldsBehindFixed, "/bin/true", {"b"});
      case 3:
        return host::ActivateAppsCommand({1, 0, UINT_MAX});
      default:
        return host::ActivateWindowCommand(Boundary());
    }
  }

  std::uint32_t Boundary() {
    constexpr std::uint32_t kNumbers[] = {0,    1,    4,          19,         20,         36,        4095,
                                          4096, 4097, 0x7FFFFFFF, 0x80000000, 0xFFFFFFF0, 0xFFFFFFFF};
    return Random(3) == 0 ? static_cast<std::uint32_t>(random_()) : kNumbers[Random(std::size(kNumbers))];
  }

  // Its beginning never becomes that of a command to quit an application: a process of this machine would be signalled.
  host::HostCommand Mutated() {
    host::HostCommand command = Sensible();
    host::Bytes& block = command.block;
    for (std::size_t left = 1 + Random(4); left > 0; --left) {
      const std::size_t size = block.size();
      if (size < 4) {
        break;
      }
      switch (Random(5)) {
        case 0:
          block[Random(size)] = static_cast<std::uint8_t>(Random(256));
          break;
        case 1:
        case 2: {
          const std::uint32_t number = Boundary();
          host::StoreU32(block, Random(std::min(size, std::size_t{64}) / 4) * 4, number);
          break;
        }
        case 3:
          block.resize(Random(2) == 0 ? Random(size) : size + Random(5000));
          break;
        default:
          command.announced_size = Boundary();
          break;
      }
    }
    host::Bytes code(block.begin(), block.begin() + std::min<std::ptrdiff_t>(4, std::ssize(block)));
    code.resize(4);
    if (host::LoadU32(code, 0) == host::LoadU32(host::QuitCommand(0, host::Force::kNo).block, 0)) {
      block[0] ^= 0x80;
    }
    return command;
  }
};

// With windows to hide and to activate. The agent fetches one command a second.
TEST_F(HostAttack, RandomAndMutatedCommands) {
  session_.Open({.title = "a"});
  const std::uint32_t pids[] = {static_cast<std::uint32_t>(agent_->Pid()), 0, UINT_MAX, 0x80000000, 1 << 22};
  for (int i = 0; i < Scaled(2); ++i) {
    session_.Host().Send(Mutated());
    const std::uint32_t pid = pids[static_cast<unsigned>(i) % std::size(pids)];
    session_.Host().Send(host::QuitCommand(pid, host::Force::kYes));
  }
  EXPECT_TRUE(AllCommandsFetched());
}

TEST_F(HostAttack, AnswersThatFailComeLateOrManyTimes) {
  for (int round = 0; round < Scaled(2); ++round) {
    for (int i = 0; i < 6; ++i) {
      constexpr int kErrors[] = {EINTR, EAGAIN, ENODEV, EIO, EFAULT, ENOSPC, ENOMEM, EINVAL};
      session_.Host().faults().Add({.action = static_cast<FaultAction>(Random(5)),
                                    .times = static_cast<std::uint32_t>(1 + Random(20)),
                                    .kind = static_cast<MessageKind>(Random(host::kMessageKinds)),
                                    .status = Boundary() | 1,
                                    .error = kErrors[Random(std::size(kErrors))]});
    }
    session_.Host().faults().SetDelay(std::chrono::milliseconds(Random(700)));
    session_.Host().Send(Random(2) == 0 ? Mutated() : host::ResetCommand());
    const Window window = session_.Open({.title = "told to a bad host"});
    session_.Client().SetTitle(window, "another title");
    session_.Client().SetIcon(window, {2, 1, 7, 7});
    std::this_thread::sleep_for(std::chrono::milliseconds(Random(700)));
    session_.Client().Close(window);
  }
}

// All messages fail, and no new descriptor of the device can be had; then it is back. When the device is replaced, what
// an agent has opened of it stays dead, but the agent ends as it should, and the next one serves.
TEST_F(HostAttack, TheDeviceFailsAndReturnsAndIsReplaced) {
  for (int round = 0; round < Scaled(1); ++round) {
    session_.Host().faults().RefuseOpens(ENXIO);
    session_.Host().faults().Add({.action = FaultAction::kWriteError, .times = UINT_MAX, .error = ENODEV});
    const Window window = session_.Open({.title = "unheard of"});
    std::this_thread::sleep_for(500ms);
    session_.Host().faults().Clear();
    session_.Client().Close(window);
    ServeBeacon();
  }
  session_.Host().Stop();
  session_.Open({.title = "while there is none"});
  std::this_thread::sleep_for(1100ms);  // in which a command is fetched
  std::string error;
  ASSERT_TRUE(session_.Host().Start(error)) << error;
  ASSERT_TRUE(Lives());
  agent_->Stop();
  Start();
}

}  // namespace
}  // namespace qel::test
