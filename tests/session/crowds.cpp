#include "session/crowds.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <random>
#include <string>
#include <thread>

#include "support/wait_until.h"

namespace qel::test {
namespace {

// One of many windows. The processes own the windows in turn.
WindowTraits Traits(const std::vector<std::int32_t>& pids, std::size_t number) {
  return {.pid = pids[number % pids.size()],
          .title = "window " + std::to_string(number),
          .x = static_cast<int>(number % 20 * 60),
          .y = static_cast<int>(number / 20 % 20 * 50),
          .width = 40,
          .height = 30,
          .wants_focus = false};  // metacity needs 40 ms for each focused window
}

}  // namespace

std::vector<Window> OpenInBursts(Session& session, std::size_t count) {
  const std::vector pids{session.NewProcess().Pid(), session.NewProcess().Pid(), session.NewProcess().Pid()};
  const std::size_t before = session.Client().ManagedWindows().size();
  std::vector<Window> windows;
  while (windows.size() < count) {
    std::vector<WindowTraits> burst;
    while (burst.size() < (windows.empty() ? count / 2 : 10) && windows.size() + burst.size() < count) {
      burst.push_back(Traits(pids, windows.size() + burst.size()));
    }
    const auto opened = session.Client().OpenMany(burst);
    windows.insert(windows.end(), opened.begin(), opened.end());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // the pause between two bursts
  }
  const auto ready = [&] {
    return session.Client().ManagedWindows().size() == before + windows.size() &&
           std::ranges::all_of(windows, [&](Window window) { return session.Client().IsShown(window); });
  };
  return WaitUntil(ready, kSoon) ? windows : std::vector<Window>();
}

void OpenAndClose(Session& session, const ShortLives& lives) {
  using Clock = std::chrono::steady_clock;
  const std::vector pids{session.NewProcess().Pid(), session.NewProcess().Pid(), session.NewProcess().Pid()};
  std::mt19937 random;  // the same sequence in every run
  std::uniform_int_distribution<long> life_ms(0, lives.longest.count());
  std::multimap<Clock::time_point, Window> ends;
  const std::size_t before = session.Client().ManagedWindows().size();
  for (std::size_t opened = 0; opened < lives.count || !ends.empty();) {
    if (opened < lives.count) {
      const Window window = session.Client().Open(Traits(pids, opened));
      if (++opened % lives.kept != 0) {
        ends.emplace(Clock::now() + std::chrono::milliseconds(life_ms(random)), window);
      }
    }
    while (!ends.empty() && ends.begin()->first <= Clock::now()) {
      session.Client().Close(ends.begin()->second);
      ends.erase(ends.begin());
    }
    std::this_thread::sleep_for(lives.interval);
  }
  WaitUntil([&] { return session.Client().ManagedWindows().size() == before + lives.count / lives.kept; }, kSoon);
}

bool ReportAndTakeBack(Session& session, Agent& agent, const WindowTraits& traits, std::size_t count,
                       std::size_t at_once) {
  using host::MessageKind;
  XClient& client = session.Client();
  for (std::size_t done = 0; done < count; done += at_once) {
    const std::uint64_t added = session.Count(MessageKind::kAddRun);
    const std::uint64_t removed = session.Count(MessageKind::kRmvRun);
    agent.Kill(SIGSTOP);
    std::vector<Window> windows(at_once);
    std::ranges::generate(windows, [&] { return client.Open(traits); });
    if (!session.HasWindowManager()) {
      client.Set(client.Root(), "_NET_CLIENT_LIST", "WINDOW", 32, {windows.begin(), windows.end()});
    }
    agent.Kill(SIGCONT);
    if (!session.WaitForCount(MessageKind::kAddRun, added + at_once)) {
      return false;
    }
    std::ranges::for_each(windows, [&](Window window) { client.Close(window); });
    if (!session.WaitForCount(MessageKind::kRmvRun, removed + at_once)) {
      return false;
    }
  }
  return true;
}

}  // namespace qel::test
