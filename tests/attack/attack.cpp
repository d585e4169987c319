#include "attack/attack.h"

#include <cstdio>
#include <cstdlib>
#include <numeric>

namespace qel::test {
namespace {

#ifdef __SANITIZE_ADDRESS__
// The sanitizer keeps some freed memory, and shadow of all that was ever used.
constexpr long kMostGrowthKib = 100 * 1024;
// The search for leaks at the end takes some of it.
constexpr std::chrono::milliseconds kStopLimit = kStopTime;
#else
constexpr long kMostGrowthKib = 1024;
constexpr std::chrono::milliseconds kStopLimit = 2s;
#endif

constexpr std::chrono::milliseconds kPeriod{200};

int FromEnvironment(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr ? std::max(std::atoi(value), 1) : 1;
}

std::size_t CountEntries(const fs::path& folder) {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
}

std::chrono::milliseconds Since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

}  // namespace

AttackTest::AttackTest() : random_(static_cast<unsigned>(FromEnvironment("QEL_ATTACK_SEED"))) {
  std::printf("seed %d, scale %d\n", FromEnvironment("QEL_ATTACK_SEED"), Scaled(1));
}

int AttackTest::Scaled(int brief) {
  return brief * FromEnvironment("QEL_ATTACK_SCALE");
}

std::string AttackTest::RandomBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::ranges::generate(bytes, [this] { return static_cast<char>(Random(256)); });
  return bytes;
}

std::vector<std::string> AttackTest::AsOrdinaryUser() {
  const std::vector<std::string> wrapper = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
  ChildOptions trial{.arguments = wrapper};
  trial.arguments.emplace_back("true");
  const auto status = ChildProcess(trial).Wait();
  fs::permissions("/var/log", fs::perms::all);  // the test's own
  return status && status->exit_code == 0 ? wrapper : std::vector<std::string>();
}

void AttackTest::Start(const EnvironmentChanges& environment, const std::vector<std::string>& wrapper,
                       const std::string& display) {
  EnvironmentChanges changes = {{"ASAN_OPTIONS",
                                 "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:allocator_release_to_os_"
                                 "interval_ms=100:verify_asan_link_order=0"}};
  changes.insert(changes.end(), environment.begin(), environment.end());
  agent_ = std::make_unique<Agent>(display.empty() ? session_.Server().Display() : display,
                                   std::vector<std::string>{"-r", "200"}, changes, wrapper);
  ASSERT_TRUE(WaitUntil([&] { return !Lives() || session_.ToolActive().value_or(false); }, kSoon));
  ASSERT_TRUE(Lives()) << "the agent has ended at the start";
  for (int i = 0; i < 2; ++i) {
    ServeBeacon();
  }
  Reset();
  before_ = Measure();
}

std::chrono::milliseconds AttackTest::ServeBeacon() {
  // Its class is known to no entry, so that all who may know of it are asked.
  const Window window = session_.Open({.title = "beacon", .window_class = std::string("nobody\0Nobody\0", 14)});
  const std::uint32_t id = session_.Id(window);
  const auto knows = [&](bool it) {
    EXPECT_TRUE(WaitUntil(
        [&] {
          bool known = false;
          session_.Host().model().Read([&](const host::ModelState& state) { known = state.FindWindow(id) != nullptr; });
          return known == it || !Lives();
        },
        kSoon));
  };
  const auto start = std::chrono::steady_clock::now();
  knows(true);
  const auto time = Since(start);
  session_.Client().Close(window);
  knows(false);
  return time;
}

void AttackTest::Claim(const std::vector<Window>& windows, std::size_t others) {
  std::vector<long> list(windows.begin(), windows.end());
  std::ranges::generate_n(std::back_inserter(list), static_cast<std::ptrdiff_t>(others),
                          [this] { return static_cast<long>(random_()); });
  session_.Client().Set(session_.Client().Root(), "_NET_CLIENT_LIST", "WINDOW", 32, list);
}

void AttackTest::Reset() {
  const std::uint64_t finished = session_.Count(MessageKind::kFinishEnum);
  session_.Host().Send(host::ResetCommand());
  EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, finished + 1));
}

bool AttackTest::AllCommandsFetched() {
  return WaitUntil([&] { return session_.Host().CommandsWaiting() == 0 || !Lives(); },
                   std::chrono::seconds(2 * session_.Host().CommandsWaiting()) + kSoon);
}

AttackTest::Footprint AttackTest::Measure() {
  const fs::path folder = ProcFolder(agent_->Pid());
  return {MemoryOf(agent_->Pid()).dirty_kib, CountEntries(folder / "fd"), CountEntries(folder / "task")};
}

void AttackTest::TearDown() {
  if (agent_ == nullptr || HasFatalFailure()) {
    return;
  }
  const auto attack_end = std::chrono::steady_clock::now();
  session_.Host().faults().Clear();
  ASSERT_TRUE(Lives()) << "the agent has ended";
  EXPECT_TRUE(AllCommandsFetched());
  std::chrono::milliseconds beacon = ServeBeacon();
  const auto recovery = Since(attack_end);
  // Others who keep the processors busy can only make it later.
  for (int i = 0; i < 3 && beacon > 2 * kPeriod; ++i) {
    beacon = ServeBeacon();
  }
  EXPECT_LE(beacon, 2 * kPeriod);
  Reset();
  EXPECT_TRUE(session_.ShowsClientList()) << "the host's picture differs from the X server's";
  Footprint after;
  WaitUntil(
      [&] {
        after = Measure();
        return after.descriptors <= before_.descriptors && after.threads <= before_.threads &&
               after.dirty_kib - before_.dirty_kib <= kMostGrowthKib;
      },
      5s);
  EXPECT_LE(after.descriptors, before_.descriptors);
  EXPECT_LE(after.threads, before_.threads);
  EXPECT_LE(after.dirty_kib - before_.dirty_kib, kMostGrowthKib);

  const auto stop_start = std::chrono::steady_clock::now();
  agent_->Stop();
  const auto stop = Since(stop_start);
  EXPECT_LE(stop, kStopLimit);
  std::printf("served again after %ld ms, beacon after %ld ms, memory %+ld KiB, stopped after %ld ms\n",
              static_cast<long>(recovery.count()), static_cast<long>(beacon.count()),
              after.dirty_kib - before_.dirty_kib, static_cast<long>(stop.count()));
}

}  // namespace qel::test
