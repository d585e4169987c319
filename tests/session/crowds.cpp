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

// The windows of a session, for four processes in turn.
class Maker {
 public:
  explicit Maker(Session& session) {
    for (std::int32_t& pid : pids_) {
      pid = session.NewProcess().Pid();
    }
  }

  WindowTraits Next() {
    const int number = made_++;
    return {.pid = pids_[static_cast<std::size_t>(number) % pids_.size()],
            .title = "window " + std::to_string(number),
            .x = number % 20 * 60,
            .y = number / 20 % 20 * 50,
            .width = 40,
            .height = 30,
            .wants_focus = false};  // metacity takes 40 ms for each that gets it
  }

 private:
  std::array<std::int32_t, 4> pids_{};
  int made_ = 0;
};

}  // namespace

std::vector<Window> OpenInBursts(Session& session, int count) {
  constexpr int kLaterBursts = 10;
  constexpr std::chrono::milliseconds kPause{30};
  Maker maker(session);
  std::vector<Window> windows;
  const std::size_t before = session.Client().ManagedWindows().size();
  for (int size = count / 2; size > 0; size = std::min(kLaterBursts, count - static_cast<int>(windows.size()))) {
    std::vector<WindowTraits> burst;
    for (int i = 0; i < size; ++i) {
      burst.push_back(maker.Next());
    }
    const auto opened = session.Client().OpenMany(burst);
    windows.insert(windows.end(), opened.begin(), opened.end());
    std::this_thread::sleep_for(kPause);
  }
  const auto ready = [&] {
    return session.Client().ManagedWindows().size() == before + windows.size() &&
           std::ranges::all_of(windows, [&](Window window) { return session.Client().IsShown(window); });
  };
  return WaitUntil(ready, kSoon) ? windows : std::vector<Window>();
}

void OpenAndClose(Session& session, const ShortLives& lives) {
  using Clock = std::chrono::steady_clock;
  Maker maker(session);
  std::mt19937 random;  // the same lives in every run
  std::uniform_int_distribution<long> life(0, lives.longest.count());
  std::multimap<Clock::time_point, Window> ends;
  Clock::time_point next = Clock::now();
  const std::size_t before = session.Client().ManagedWindows().size();
  std::size_t kept = 0;
  for (int opened = 0; opened < lives.count || !ends.empty();) {
    if (opened < lives.count && Clock::now() >= next) {
      const Window window = session.Client().OpenMany({maker.Next()}).front();
      next += lives.interval;
      if (++opened % lives.kept == 0) {
        ++kept;
      } else {
        ends.emplace(Clock::now() + std::chrono::milliseconds(life(random)), window);
      }
    }
    while (!ends.empty() && ends.begin()->first <= Clock::now()) {
      session.Client().Close(ends.begin()->second);
      ends.erase(ends.begin());
    }
    const Clock::time_point never = Clock::now() + lives.longest;
    const Clock::time_point next_end = ends.empty() ? never : ends.begin()->first;
    std::this_thread::sleep_until(opened < lives.count ? std::min(next, next_end) : next_end);
  }
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
    std::vector<long> windows;
    for (int i = 0; i < kAtOnce; ++i) {
      const Window window = session.Client().Create({.pid = process.Pid(), .title = "passing", .icon = icon});
      windows.push_back(static_cast<long>(window));
    }
    session.Client().Set(session.Client().Root(), "_NET_CLIENT_LIST", "WINDOW", 32, windows);
    for (const long window : windows) {
      session.Client().Map(static_cast<Window>(window));
    }
    const auto so_far = static_cast<std::uint64_t>(done + kAtOnce);
    if (!session.WaitForCount(MessageKind::kAddRun, added + so_far)) {
      return false;
    }
    for (const long window : windows) {
      session.Client().Close(static_cast<Window>(window));
    }
    if (!session.WaitForCount(MessageKind::kRmvRun, removed + so_far)) {
      return false;
    }
  }
  return true;
}

}  // namespace qel::test
