// Host commands: decoding, argument building, and how long a start keeps the launcher.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "apps/exec_arguments.h"
#include "apps/host_command_block.h"
#include "apps/launched_processes.h"
#include "apps/launcher.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_buffer.h"

namespace qel {
namespace {

// A start command in the field layout with this many documents.
std::vector<std::byte> StartCommand(std::size_t documents) {
  constexpr std::uint32_t kPrefix = 24;
  MessageBuffer fields;
  const MessageBufferOwner owner(fields);
  const std::string app = "/usr/share/applications/org.gnome.gedit.desktop";
  const std::string document = "/media/share/Home/Documents/a document.txt";
  bool composed = bbCompose(fields, kPrefix) == kBbSuccess &&
                  bbPut(fields, app.data(), static_cast<std::uint32_t>(app.size()), 0x200B) == kBbSuccess;
  for (std::size_t i = 0; i < documents; ++i) {
    composed =
        composed && bbPut(fields, document.data(), static_cast<std::uint32_t>(document.size()), 0x2016) == kBbSuccess;
  }
  if (!composed) {
    return {};
  }
  std::vector<std::byte> block(bbData(fields), bbData(fields) + bbSize(fields));
  StoreU32(block.data(), 106);
  StoreU32(block.data() + 8, 0);
  StoreU32(block.data() + 16, static_cast<std::uint32_t>(block.size() - kHostCommandHeaderSize));
  StoreU32(block.data() + 20, 0xFFFFFFFF);
  return block;
}

void DecodeStart(benchmark::State& state) {
  const std::vector<std::byte> block = StartCommand(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    benchmark::DoNotOptimize(HostCommandBlock(block).Decode());
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(block.size()));
}
BENCHMARK(DecodeStart)->Arg(1)->Arg(60)->Arg(10'000);

// What decoding cannot be cheaper than: the texts copied into strings.
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

// Memory of the process that every fork has to mark as shared.
std::vector<char> TouchedMemory(std::int64_t megabytes) {
  return std::vector<char>(static_cast<std::size_t>(megabytes) * 1024 * 1024, 1);
}

void Reap(int children) {
  for (; children > 0; --children) {
    wait(nullptr);
  }
}

// How long LaunchApplication() keeps its caller, and the table's lock. The programs are waited for off the clock.
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

// The alternative, which shares the memory but returns only when the program has been loaded.
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

// From the call to the program's end, with either way to start it.
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

}  // namespace
}  // namespace qel

BENCHMARK_MAIN();
