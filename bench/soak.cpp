// A long load test, started by hand: runs the real agent in real sessions. Each part prints one line with its results.
// The last line and the exit status show whether all parts passed.

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control_extension/proxy.h"
#include "session/crowds.h"
#include "session/process_memory.h"
#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using host::MessageKind;

constexpr long kMostGrowthKib = 64;
const std::vector<std::string> kArguments{"-r", "500"};

struct Options {
  int windows = 10'000;
  int burst = 400;
  int commands = 300;
  int handovers = 200;
  int servers = 200;
  int minutes = 0;
  std::vector<std::string> only;
};

long Milliseconds(Clock::duration duration) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(duration).count();
}

// Prints the line of a part; returns `good`.
[[gnu::format(printf, 3, 4)]] bool Report(bool good, const std::string& part, const char* format, ...) {
  std::printf("%-6s %-28s ", good ? "ok" : "FAILED", part.c_str());
  va_list arguments;
  va_start(arguments, format);
  std::vprintf(format, arguments);
  va_end(arguments);
  std::puts("");
  std::fflush(stdout);
  return good;
}

bool EndsWell(Session& session) {
  session.StopAgent();
  std::uint64_t violations = 0;
  session.Host().model().Read([&](const host::ModelState& state) { violations = state.violations; });
  return violations == 0;
}

// Windows that exist for at most one second. At the end the host must show exactly the windows that still exist.
bool Ghosts(const std::string& name, int windows, std::chrono::milliseconds host_delay) {
  Session session("metacity");
  session.StartServingAgent(kArguments);
  session.Host().faults().SetDelay(host_delay);
  const Clock::time_point start = Clock::now();
  OpenAndClose(session, {.count = static_cast<std::size_t>(windows), .longest = 1s, .interval = 25ms, .kept = 500});
  const Clock::time_point closed = Clock::now();
  session.ShowsClientList();
  const Clock::time_point shown = Clock::now();
  session.Settle();
  const std::size_t faults = session.PictureFaults().size();
  const bool ended = EndsWell(session);
  return Report(
      faults == 0 && ended, name,
      "%d windows in %ld s, %llu reported, %llu removed, picture right after %ld ms, %zu faults", windows,
      Milliseconds(closed - start) / 1000, static_cast<unsigned long long>(session.Count(MessageKind::kAddRun)),
      static_cast<unsigned long long>(session.Count(MessageKind::kRmvRun)), Milliseconds(shown - closed), faults);
}

bool Burst(const std::string& window_manager, int windows) {
  Session session(window_manager);
  session.StartServingAgent(kArguments);
  const Clock::time_point start = Clock::now();
  const bool listed = !OpenInBursts(session, static_cast<std::size_t>(windows)).empty();
  const Clock::time_point all_listed = Clock::now();
  const bool shown = session.WaitForCount(MessageKind::kAddRun, static_cast<std::uint64_t>(windows));
  const Clock::time_point all_shown = Clock::now();
  const std::size_t faults = session.PictureFaults().size();
  const bool ended = EndsWell(session);
  return Report(listed && shown && faults == 0 && ended, "burst, " + window_manager,
                "%d windows shown after %ld ms, all at the host %ld ms later, %zu faults", windows,
                Milliseconds(all_listed - start), Milliseconds(all_shown - all_listed), faults);
}

bool ReportGrowth(const std::string& part, bool done, const Memory& before, const Memory& after,
                  const std::string& what) {
  const long growth = after.dirty_kib - before.dirty_kib;
  return Report(done && growth <= kMostGrowthKib, part,
                "%s, %ld KiB of its own before, %ld after: %+ld KiB; %ld KiB proportional", what.c_str(),
                before.dirty_kib, after.dirty_kib, growth, after.proportional_kib);
}

// The first thousand windows fill the memory that the agent keeps.
bool WindowGrowth(int windows) {
  Session session("");
  Agent& agent = session.StartServingAgent(kArguments);
  const IdleProcess process;
  std::vector<std::uint32_t> icon(2 + 16 * 16, 0xFF336699);
  icon[0] = icon[1] = 16;
  const auto run = [&](int count) {
    return ReportAndTakeBack(session, agent, {.pid = process.Pid(), .icon = icon}, static_cast<std::size_t>(count),
                             200);
  };
  bool done = run(std::min(windows, 1000));
  const Memory before = MemoryOf(agent.Pid());
  done = run(windows) && done;
  const Memory after = MemoryOf(agent.Pid());
  return ReportGrowth("growth, windows", EndsWell(session) && done, before, after,
                      std::to_string(windows) + " windows");
}

// The agent fetches one command per second, so each command takes one second. The kinds of commands alternate, so that
// each kind is executed at least once before the first measurement of the memory.
bool CommandGrowth(int commands) {
  Session session("openbox");
  IdleProcess& process = session.NewProcess();
  const auto pid = static_cast<std::uint32_t>(process.Pid());
  const Window window = session.Open({.pid = process.Pid(), .title = "first"});
  session.Open({.title = "second"});
  Agent& agent = session.StartServingAgent(kArguments);
  const auto id = session.Id(window);
  const std::vector<host::HostCommand> kinds = {
      host::HideCommand({pid}, {}, 1, 2),
      host::ActivateWindowCommand(id),
      host::ActivateAppsCommand({pid}),
      *host::StartCommand(host::StartLayout::kFields, "/bin/true", {"a", "b"}),
      host::HideCommand(std::vector<std::uint32_t>(2000, pid), {}, 3, 4),  // too large for the first answer
      host::ActivateOneAppCommand(pid),
      host::QuitCommand(pid, host::Force::kNo),
      host::ResetCommand(),
  };
  const auto run = [&](int count) {
    for (int i = 0; i < count; ++i) {
      session.Host().Send(kinds[static_cast<std::size_t>(i) % kinds.size()]);
    }
    const bool fetched =
        WaitUntil([&] { return session.Host().CommandsWaiting() == 0; }, std::chrono::seconds(2 * count) + kSoon);
    session.Settle();
    return fetched;
  };
  bool done = run(2 * static_cast<int>(kinds.size()));
  const Memory before = MemoryOf(agent.Pid());
  done = run(commands) && done;
  const Memory after = MemoryOf(agent.Pid());
  return ReportGrowth("growth, commands", EndsWell(session) && done, before, after,
                      std::to_string(commands) + " commands");
}

struct Times {
  long longest = 0;
  long sum = 0;
  void Add(long milliseconds) {
    longest = std::max(longest, milliseconds);
    sum += milliseconds;
  }
};

// The console changes repeatedly between the sessions of two agents, which both must keep running.
bool Switches(int switches) {
  Session session("openbox");
  session.Open({.title = "shared"});
  control_extension::Proxy proxies[] = {control_extension::Proxy(session.Server().Display()),
                                        control_extension::Proxy(session.Server().Display())};
  proxies[1].State().console_active = false;
  Agent first(proxies[0].Display(), kArguments);
  bool done = session.WaitForCount(MessageKind::kFinishEnum, 1);
  Agent second(proxies[1].Display(), kArguments);
  std::uint64_t served = 1;
  Times times;
  const auto run = [&](int count) {
    for (int i = 0; i < count && done; ++i) {
      const Clock::time_point start = Clock::now();
      const bool first_is_next = served % 2 == 0;
      proxies[0].State().console_active = first_is_next;
      proxies[1].State().console_active = !first_is_next;
      done = session.WaitForCount(MessageKind::kFinishEnum, ++served);
      times.Add(Milliseconds(Clock::now() - start));
    }
  };
  run(10);
  const Memory before[] = {MemoryOf(first.Pid()), MemoryOf(second.Pid())};
  times = {};
  run(switches);
  const Memory after[] = {MemoryOf(first.Pid()), MemoryOf(second.Pid())};
  const std::string what = std::to_string(switches) + " handovers, " +
                           std::to_string(times.sum / std::max(switches, 1)) + " ms on average, " +
                           std::to_string(times.longest) + " at most";
  for (Agent* agent : {&first, &second}) {
    agent->Kill(SIGTERM);
    const auto status = agent->Wait(kStopTime);
    done = status && status->exit_code == 0 && done;
  }
  const bool first_good = ReportGrowth("growth, console, one agent", done, before[0], after[0], what);
  return ReportGrowth("growth, console, the other", done, before[1], after[1], what) && first_good;
}

// The agent that owns the console is stopped or killed at random moments. Measures the time until the other agent
// serves.
bool Takeovers(int takeovers) {
  Session session("openbox");
  session.Open({.title = "shared"});
  std::mt19937 random;
  std::uniform_int_distribution<int> moment(0, 1500);
  auto owner = std::make_unique<Agent>(session.Server().Display(), kArguments);
  bool done = session.WaitForCount(MessageKind::kFinishEnum, 1);
  Times times;
  int i = 0;
  for (; i < takeovers && done; ++i) {
    auto next = std::make_unique<Agent>(session.Server().Display(), kArguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(500 + moment(random)));  // the next agent is waiting by then
    owner->Kill(i % 2 == 0 ? SIGKILL : SIGTERM);
    const auto status = owner->Wait(kStopTime);
    const Clock::time_point ended = Clock::now();
    done = status && (i % 2 == 0 || status->exit_code == 0) &&
           WaitUntil([&] { return session.Count(MessageKind::kFinishEnum, next->Pid()) == 1; }, kSoon);
    times.Add(Milliseconds(Clock::now() - ended));
    owner = std::move(next);
  }
  owner->Kill(SIGTERM);
  owner->Wait(kStopTime);
  constexpr long kMost = 2000;  // the other agent checks once per second, and then starts its service
  return Report(done && times.longest < kMost, "takeovers",
                "%d agents ended, the other served after %ld ms on average, %ld at most", i, times.sum / std::max(i, 1),
                times.longest);
}

// The children of this process; after `prctl(PR_SET_CHILD_SUBREAPER)`, also those that ended processes have left
// behind.
std::set<pid_t> Children() {
  std::set<pid_t> children;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream list(thread.path() / "children");
    for (pid_t child = 0; list >> child;) {
      children.insert(child);
    }
  }
  return children;
}

// X servers that crash while the agent starts, looks at the windows or serves.
bool Servers(int servers) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  std::mt19937 random;
  std::uniform_int_distribution<int> moment(0, 2000);
  Times times;
  int wrong_ends = 0;
  int left = 0;
  for (int i = 0; i < servers; ++i) {
    Session session(i % 4 == 0 ? "openbox" : "");
    for (int window = 0; window < 20; ++window) {
      session.Open({.title = "window " + std::to_string(window)});
    }
    const std::set<pid_t> before = Children();
    Agent& agent = session.StartAgent(kArguments);
    std::this_thread::sleep_for(std::chrono::milliseconds(moment(random)));
    session.KillServer();
    const Clock::time_point killed = Clock::now();
    const auto status = agent.Wait(kStopTime);
    times.Add(Milliseconds(Clock::now() - killed));
    wrong_ends += status && status->exit_code == 0 ? 0 : 1;
    std::set<pid_t> after = Children();
    std::erase_if(after, [&](pid_t child) { return before.contains(child); });
    left += static_cast<int>(after.size());
  }
  return Report(
      wrong_ends == 0 && left == 0, "servers",
      "%d X servers killed, %d agents did not end with status 0, %d processes left, an agent ended after %ld ms on "
      "average, %ld at most",
      servers, wrong_ends, left, times.sum / std::max(servers, 1), times.longest);
}

int Run(const Options& options) {
  const std::vector<std::pair<std::string, std::function<bool()>>> parts = {
      {"ghosts", [&] { return Ghosts("ghosts, prompt host", options.windows, 0ms); }},
      {"slow-ghosts", [&] { return Ghosts("ghosts, host takes 50 ms", options.windows, 50ms); }},
      {"bursts",
       [&] {
         bool good = true;
         for (const char* window_manager : kWindowManagers) {
           good = Burst(window_manager, options.burst) && good;
         }
         return good;
       }},
      {"windows", [&] { return WindowGrowth(options.windows); }},
      {"commands", [&] { return CommandGrowth(options.commands); }},
      {"console", [&] { return Switches(options.handovers); }},
      {"takeovers", [&] { return Takeovers(options.handovers); }},
      {"servers", [&] { return Servers(options.servers); }},
  };
  const Clock::time_point end = Clock::now() + std::chrono::minutes(options.minutes);
  int failed = 0;
  int rounds = 0;
  do {
    ++rounds;
    for (const auto& [name, part] : parts) {
      if (options.only.empty() || std::ranges::count(options.only, name) > 0) {
        try {
          failed += part() ? 0 : 1;
        } catch (const std::exception& error) {
          ++failed;
          Report(false, name, "%s", error.what());
        }
      }
    }
  } while (Clock::now() < end);
  std::printf("soak: %s (%d round%s, %d failed)\n", failed == 0 ? "all held" : "FAILED", rounds, rounds == 1 ? "" : "s",
              failed);
  return failed == 0 ? 0 : 1;
}

int Main(int argc, char** argv) {
  Options options;
  CLI::App app("Drives the agent for a long time and looks whether it loses anything or grows.", "soak");
  app.add_option("--windows", options.windows, "Windows of the parts ghosts, slow-ghosts and windows")
      ->capture_default_str();
  app.add_option("--burst", options.burst, "Windows of each burst")->capture_default_str();
  app.add_option("--commands", options.commands, "Host commands; the agent fetches one a second")
      ->capture_default_str();
  app.add_option("--handovers", options.handovers, "Times that the console goes to another agent")
      ->capture_default_str();
  app.add_option("--servers", options.servers, "X servers that are killed")->capture_default_str();
  app.add_option("--minutes", options.minutes, "Begin anew until so much time is over")->capture_default_str();
  app.add_option("parts", options.only,
                 "Only these of: ghosts slow-ghosts bursts windows commands console takeovers servers");
  CLI11_PARSE(app, argc, argv);
  return EnterTestNamespaces() ? Run(options) : 2;
}

}  // namespace
}  // namespace qel::test

int main(int argc, char** argv) {
  return qel::test::Main(argc, argv);
}
