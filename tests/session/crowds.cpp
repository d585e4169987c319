#include "session/crowds.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "support/wait_until.h"

namespace qel::test {
namespace {

using Processes = std::array<std::int32_t, 4>;

Processes NewProcesses(Session& session) {
  Processes pids{};
  std::ranges::generate(pids, [&] { return session.NewProcess().Pid(); });
  return pids;
}

// One of many windows; they are the processes' in turn.
WindowTraits Traits(const Processes& pids, std::size_t number) {
  return {.pid = pids[number % pids.size()],
          .title = "window " + std::to_string(number),
          .x = static_cast<int>(number % 20 * 60),
          .y = static_cast<int>(number / 20 % 20 * 50),
          .width = 40,
          .height = 30,
          .wants_focus = false};  // metacity takes 40 ms for each that gets it
}

}  // namespace

std::vector<Window> OpenInBursts(Session& session, std::size_t count) {
  const Processes pids = NewProcesses(session);
  const std::size_t before = session.Client().ManagedWindows().size();
  std::vector<Window> windows;
  while (windows.size() < count) {
    std::vector<WindowTraits> burst;
    while (burst.size() < (windows.empty() ? count / 2 : 10) && windows.size() + burst.size() < count) {
      burst.push_back(Traits(pids, windows.size() + burst.size()));
    }
    const auto opened = session.Client().OpenMany(burst);
    windows.insert(windows.end(), opened.begin(), opened.end());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // between the bursts
  }
  const auto ready = [&] {
    return session.Client().ManagedWindows().size() == before + windows.size() &&
           std::ranges::all_of(windows, [&](Window window) { return session.Client().IsShown(window); });
  };
  return WaitUntil(ready, kSoon) ? windows : std::vector<Window>();
}

void OpenAndClose(Session& session, const ShortLives& lives) {
  using Clock = std::chrono::steady_clock;
  const Processes pids = NewProcesses(session);
  std::mt19937 random;  // the same lives in every run
  std::uniform_int_distribution<long> life(0, lives.longest.count());
  std::multimap<Clock::time_point, Window> ends;
  const std::size_t before = session.Client().ManagedWindows().size();
  for (std::size_t opened = 0; opened < lives.count || !ends.empty();) {
    if (opened < lives.count) {
      const Window window = session.Client().Open(Traits(pids, opened));
      if (++opened % lives.kept != 0) {
        ends.emplace(Clock::now() + std::chrono::milliseconds(life(random)), window);
      }
    }
    while (!ends.empty() && ends.begin()->first <= Clock::now()) {
      session.Client().Close(ends.begin()->second);
      ends.erase(ends.begin());
    }
    std::this_thread::sleep_for(lives.interval);
  }
  const std::size_t kept = lives.count / lives.kept;
  WaitUntil([&] { return session.Client().ManagedWindows().size() == before + kept; }, kSoon);
}

bool ReportAndTakeBack(Session& session, int count) {
  using host::MessageKind;
  constexpr int kAtOnce = 200;
  const std::uint64_t added = session.Count(MessageKind::kAddRun);
  const std::uint64_t removed = session.Count(MessageKind::kRmvRun);
  IdleProcess& process = session.NewProcess();
  std::vector<std::uint32_t> icon(2 + 16 * 16, 0xFF336699);
  icon[0] = icon[1] = 16;
  for (int done = 0; done < count; done += kAtOnce) {
    const std::vector<Window> windows = session.Client().OpenMany(
        std::vector<WindowTraits>(kAtOnce, {.pid = process.Pid(), .title = "passing", .icon = icon}));
    session.Client().Set(session.Client().Root(), "_NET_CLIENT_LIST", "WINDOW", 32, {windows.begin(), windows.end()});
    const auto so_far = static_cast<std::uint64_t>(done + kAtOnce);
    if (!session.WaitForCount(MessageKind::kAddRun, added + so_far)) {
      return false;
    }
    for (const Window window : windows) {
      session.Client().Close(window);
    }
    if (!session.WaitForCount(MessageKind::kRmvRun, removed + so_far)) {
      return false;
    }
  }
  return true;
}

}  // namespace qel::test
