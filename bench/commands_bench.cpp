// Host commands: decoding, building arguments, and starting programs.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "apps/exec_arguments.h"
#include "apps/host_command_block.h"
#include "apps/host_commands.h"
#include "apps/launched_processes.h"
#include "apps/launcher.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_buffer.h"

namespace qel {
namespace {

// A start command in the field layout with this many documents.
std::vector<std::byte> StartCommand(const std::string& app, std::int64_t documents) {
  constexpr std::uint32_t kPrefix = 24;
  MessageBuffer fields;
  const std::string document = "/media/share/Home/Documents/a document.txt";
  bool composed = bbCompose(fields, kPrefix) == kBbSuccess &&
                  bbPut(fields, app.data(), static_cast<std::uint32_t>(app.size()), 0x200B) == kBbSuccess;
  for (std::int64_t i = 0; i < documents; ++i) {
    composed =
        composed && bbPut(fields, document.data(), static_cast<std::uint32_t>(document.size()), 0x2016) == kBbSuccess;
  }
  if (!composed) {
    return {};
  }
  std::fill_n(bbData(fields), kPrefix, std::byte{0});
  std::vector<std::byte> block(bbData(fields), bbData(fields) + bbSize(fields));
  StoreU32(block.data(), 106);
  StoreU32(block.data() + 16, static_cast<std::uint32_t>(block.size() - kHostCommandHeaderSize));
  StoreU32(block.data() + 20, 0xFFFFFFFF);
  return block;
}

void DecodeStart(benchmark::State& state) {
  const std::vector<std::byte> block = StartCommand("/usr/share/applications/org.gnome.gedit.desktop", state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(DecodeHostCommand(block));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(block.size()));
}
BENCHMARK(DecodeStart)->Arg(1)->Arg(60)->Arg(10'000);

// The lower limit for decoding: only copies the texts into strings.
void CopyTexts(benchmark::State& state) {
  const std::string document = "/media/share/Home/Documents/a document.txt";
  for (auto _ : state) {
    std::vector<std::string> documents;
    for (std::int64_t i = 0; i <= state.range(0); ++i) {
      documents.push_back(document);
    }
    benchmark::DoNotOptimize(documents);
  }
}
BENCHMARK(CopyTexts)->Arg(1)->Arg(60)->Arg(10'000);

void BuildArguments(benchmark::State& state) {
  const std::string document = "/media/share/Home/Documents/a document.txt";
  for (auto _ : state) {
    benchmark::DoNotOptimize(ExecArguments(R"(env LANG=C "my editor" --new-window --title=%c %i %U)", document));
  }
}
BENCHMARK(BuildArguments);

// Memory of this process, which each fork() must mark as shared.
std::vector<char> TouchedMemory(std::int64_t megabytes) {
  return std::vector<char>(static_cast<std::size_t>(megabytes) * 1024 * 1024, 1);
}

void Reap(int children) {
  for (; children > 0; --children) {
    wait(nullptr);
  }
}

// The time until LaunchApplication() returns; during most of it, it holds the lock of the table. Waiting for the end of
// the programs is not measured.
void Launch(benchmark::State& state) {
  const std::vector<char> memory = TouchedMemory(state.range(0));
  LaunchedProcessTable launched;
  Launcher launcher(launched);
  for (auto _ : state) {
    launcher.LaunchApplication("true", {"/bin/true"});
    state.PauseTiming();
    Reap(1);
    state.ResumeTiming();
  }
}
BENCHMARK(Launch)->Arg(0)->Arg(100)->UseRealTime();

// The alternative posix_spawn(): it shares the memory, but returns only after the program was loaded.
void Spawn(benchmark::State& state) {
  const std::vector<char> memory = TouchedMemory(state.range(0));
  std::string name = "/bin/true";
  char* arguments[] = {name.data(), nullptr};
  for (auto _ : state) {
    pid_t child = -1;
    if (posix_spawn(&child, name.c_str(), nullptr, nullptr, arguments, environ) != 0) {
      state.SkipWithError("posix_spawn");
      break;
    }
    state.PauseTiming();
    Reap(1);
    state.ResumeTiming();
  }
}
BENCHMARK(Spawn)->Arg(0)->Arg(100)->UseRealTime();

// The time from the call to the end of the program, for both ways to start it.
void LaunchToEnd(benchmark::State& state) {
  const std::vector<char> memory = TouchedMemory(state.range(0));
  LaunchedProcessTable launched;
  Launcher launcher(launched);
  for (auto _ : state) {
    launcher.LaunchApplication("true", {"/bin/true"});
    Reap(1);
  }
}
BENCHMARK(LaunchToEnd)->Arg(0)->Arg(100)->UseRealTime();

void SpawnToEnd(benchmark::State& state) {
  const std::vector<char> memory = TouchedMemory(state.range(0));
  std::string name = "/bin/true";
  char* arguments[] = {name.data(), nullptr};
  for (auto _ : state) {
    pid_t child = -1;
    if (posix_spawn(&child, name.c_str(), nullptr, nullptr, arguments, environ) != 0) {
      state.SkipWithError("posix_spawn");
      break;
    }
    Reap(1);
  }
}
BENCHMARK(SpawnToEnd)->Arg(0)->Arg(100)->UseRealTime();

// A host that answers every fetch with the same command.
GuestCommands HostOffering(const std::vector<std::byte>& block) {
  return GuestCommands([&block](TgRequest& request) {
    std::copy(block.begin(), block.end(), request.buffers[1].data);
    return true;
  });
}

// The time from the fetch of the command until the program replaces the child, which closes a pipe end that the child
// has inherited.
void FetchedToExecuted(benchmark::State& state) {
  const std::vector<char> memory = TouchedMemory(state.range(0));
  const std::vector<std::byte> block = StartCommand("/bin/true", 0);
  const GuestCommands host = HostOffering(block);
  RunningAppRegistry registry;
  WindowRequestQueue requests;
  LaunchedProcessTable launched;
  Launcher launcher(launched);
  HostCommands commands(host, registry, requests, launcher);
  for (auto _ : state) {
    state.PauseTiming();
    int ends[2];
    if (pipe(ends) != 0) {
      state.SkipWithError("pipe");
      break;
    }
    state.ResumeTiming();
    commands.FetchAndExecute();
    close(ends[1]);
    char nothing = 0;
    benchmark::DoNotOptimize(read(ends[0], &nothing, 1));
    state.PauseTiming();
    close(ends[0]);
    Reap(1);
    state.ResumeTiming();
  }
}
BENCHMARK(FetchedToExecuted)->Arg(0)->Arg(100)->UseRealTime();

// The used memory in pages, and the number of open descriptors.
std::pair<double, double> Usage() {
  long size = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return {static_cast<double>(resident), static_cast<double>(std::distance(begin(descriptors), end(descriptors)))};
}

// Ten thousand commands. Every tenth starts a program, which is reaped. The counters show the growth since the first
// hundred commands.
void TenThousandCommands(benchmark::State& state) {
  std::vector<std::byte> block;
  const GuestCommands host = HostOffering(block);
  RunningAppRegistry registry;
  WindowRequestQueue requests;
  LaunchedProcessTable launched;
  Launcher launcher(launched);
  HostCommands commands(host, registry, requests, launcher);
  const std::vector<std::byte> start = StartCommand("/bin/true", 3);
  std::vector<std::byte> activate(kHostCommandHeaderSize + sizeof(WindowId));
  StoreU32(activate.data(), 111);
  StoreU32(activate.data() + 16, sizeof(WindowId));
  StoreU32(activate.data() + 20, 4711);
  const auto execute = [&](int count) {
    for (int i = 0; i < count; ++i) {
      block = i % 10 == 0 ? start : activate;
      commands.FetchAndExecute();
      while (requests.TakeFirst()) {
      }
      if (i % 10 == 0) {
        const pid_t ended = wait(nullptr);
        benchmark::DoNotOptimize(launched.Take(launched.Lock(), ended));
      }
    }
  };
  execute(100);
  Usage();  // its first call allocates some memory
  const auto before = Usage();
  for (auto _ : state) {
    execute(10'000);
  }
  const auto after = Usage();
  state.counters["pages_grown"] = after.first - before.first;
  state.counters["descriptors_grown"] = after.second - before.second;
}
BENCHMARK(TenThousandCommands)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
}  // namespace qel

BENCHMARK_MAIN();
