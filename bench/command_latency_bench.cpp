// The time from a host command to its effect, with the real agent in a real session: the X server, the window manager,
// the device and the started program are other processes. The time starts with the agent's fetch of the command. Before
// that, the command waits for the next fetch, half a second on average; "queued_ms" is this time.
//
// Each iteration takes a second. The shortest and the longest time are reported in addition to the mean.

#include <benchmark/benchmark.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>

#include "base/file_descriptor.h"
#include "session/session.h"
#include "support/temp_dir.h"

namespace qel::test {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kIterations = 20;

double Seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

// The time of the agent's fetch of the last command that it got.
Clock::time_point LastServed(host::Host& host) {
  Clock::time_point served;
  host.model().Read([&](const host::ModelState& state) {
    const auto fetch = std::ranges::find_if(state.events.rbegin(), state.events.rend(),
                                            [](const host::Event& event) { return event.command.has_value(); });
    if (fetch != state.events.rend()) {
      served = fetch->arrival;
    }
  });
  return served;
}

// Sends a command in each iteration, and measures the time until `await_effect` returns.
template <typename NextCommand, typename AwaitEffect>
void Measure(benchmark::State& state, host::Host& host, NextCommand next_command, AwaitEffect await_effect) {
  double shortest = 1e9;
  double longest = 0;
  double queued = 0;
  for (auto _ : state) {
    // At a random moment between two fetches, not always directly after the last one.
    usleep(static_cast<useconds_t>(std::rand() % 1'000'000));
    const Clock::time_point sent = Clock::now();
    host.Send(next_command());
    if (!await_effect()) {
      state.SkipWithError("the command had no effect");
      return;
    }
    const Clock::time_point seen = Clock::now();
    const Clock::time_point served = LastServed(host);
    const double latency = Seconds(seen - served);
    state.SetIterationTime(latency);
    shortest = std::min(shortest, latency);
    longest = std::max(longest, latency);
    queued += Seconds(served - sent);
  }
  state.counters["min_ms"] = shortest * 1e3;
  state.counters["max_ms"] = longest * 1e3;
  state.counters["queued_ms"] = queued * 1e3 / static_cast<double>(state.iterations());
}

// The time until execve() opens the file of the started program.
void StartToExecute(benchmark::State& state) {
  const TempDir files;
  const std::string program = files.Path() / "true";
  std::filesystem::copy_file("/bin/true", program);
  const FileDescriptor watch(inotify_init1(IN_CLOEXEC));
  Session session;
  session.StartServingAgent();
  inotify_add_watch(watch.Get(), program.c_str(), IN_OPEN);
  Measure(
      state, session.Host(), [&] { return *host::StartCommand(host::StartLayout::kFixed, program, {}); },
      [&] {
        alignas(inotify_event) char events[4096];
        return read(watch.Get(), events, sizeof events) > 0;
      });
}
BENCHMARK(StartToExecute)->Iterations(kIterations)->UseManualTime()->Unit(benchmark::kMillisecond);

// The time until the window has the focus. The argument is the poll period in milliseconds; on average, half of it is
// waiting time.
void ActivateToFocus(benchmark::State& state) {
  Session session;
  Window wanted = session.Open({.title = "a"});
  Window focused = session.Open({.title = "b"});
  session.StartServingAgent({"-r", std::to_string(state.range(0))});
  XClient& client = session.Client();
  while (client.FocusedWindow() != focused) {  // the window manager gives it to a new window
    usleep(50);
  }
  Measure(
      state, session.Host(), [&] { return host::ActivateWindowCommand(session.Id(wanted)); },
      [&] {
        const Clock::time_point deadline = Clock::now() + kSoon;
        while (client.FocusedWindow() != wanted) {
          if (Clock::now() > deadline) {
            return false;
          }
          usleep(50);
        }
        std::swap(wanted, focused);
        return true;
      });
}
BENCHMARK(ActivateToFocus)->Arg(100)->Arg(500)->Iterations(kIterations)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qel::test

int main(int argc, char** argv) {
  if (!qel::test::EnterTestNamespaces()) {
    return EXIT_FAILURE;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return EXIT_SUCCESS;
}
