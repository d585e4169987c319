// The time to send a message to the host: composing, staging and submitting messages, and converting their texts. The
// device is /dev/null, so only the agent's own work and one system call are measured.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "tools_gate/guest_commands.h"
#include "tools_gate/text_conversion.h"

namespace qel {
namespace {

bool SubmitToNull(TgRequest& request) {
  static const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  return TgSubmit(null, request) == kTgSubmitSuccess;
}

bool Accept(TgRequest& request) {
  benchmark::DoNotOptimize(request.buffers.data());
  return true;
}

IconImage Icon(std::uint32_t edge) {
  return {
      .bytes = std::vector<std::byte>(std::size_t{4} * edge * edge, std::byte{0x80}), .height = edge, .width = edge};
}

// Argument: the icon's edge in pixels.
void BM_CopyIcon(benchmark::State& state) {
  const IconImage icon = Icon(static_cast<std::uint32_t>(state.range(0)));
  std::vector<std::byte> to(icon.bytes.size());
  for (auto _ : state) {
    std::memcpy(to.data(), icon.bytes.data(), to.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
}

void BM_AddRun(benchmark::State& state) {
  const GuestCommands commands(SubmitToNull);
  const IconImage icon = Icon(static_cast<std::uint32_t>(state.range(0)));
  for (auto _ : state) {
    commands.GuestCmdAddRun(1, 2, "Text Editor", "/usr/bin/editor", "notes.txt - Text Editor", icon, {});
  }
}

BENCHMARK(BM_CopyIcon)->Arg(48)->Arg(128)->Arg(256);
BENCHMARK(BM_AddRun)->Arg(0)->Arg(48)->Arg(128)->Arg(256);

constexpr std::string_view kTitle = "R\u00e9sum\u00e9 \u2013 \u20ac 100.odt \u2014 Text Editor";

void BM_CopyText(benchmark::State& state) {
  std::byte field[kTextFieldSize];
  for (auto _ : state) {
    std::memcpy(field, kTitle.data(), kTitle.size());
    std::memset(field + kTitle.size(), 0, sizeof(field) - kTitle.size());
    benchmark::DoNotOptimize(field);
    benchmark::ClobberMemory();
  }
}

void BM_TextToUtf16(benchmark::State& state) {
  std::byte field[kTextFieldSize];
  for (auto _ : state) {
    TextToUtf16(field, kTitle);
    benchmark::DoNotOptimize(field);
  }
}

void BM_TextFromUtf16(benchmark::State& state) {
  std::byte field[kTextFieldSize];
  TextToUtf16(field, kTitle);
  for (auto _ : state) {
    benchmark::DoNotOptimize(TextFromUtf16(field));
  }
}

BENCHMARK(BM_CopyText);
BENCHMARK(BM_TextToUtf16);
BENCHMARK(BM_TextFromUtf16);

// A menu of 200 entries with icons of 12 KB, 2.4 MB in all.
class Menu {
 public:
  Menu() : icons_(200, std::vector<std::byte>(12'000, std::byte{1})) {
    for (const std::vector<std::byte>& icon : icons_) {
      items_.push_back(
          {"/usr/share/applications/application.desktop", "Application", "Games/Board", 1'700'000'000, icon});
    }
  }
  const std::vector<AppMenuItem>& Items() const { return items_; }

  // Only copies the same bytes, one icon after the other.
  std::size_t CopyIcons(std::byte* to) const {
    std::byte* at = to;
    for (const std::vector<std::byte>& icon : icons_) {
      std::memcpy(at, icon.data(), icon.size());
      at += icon.size();
    }
    return static_cast<std::size_t>(at - to);
  }

 private:
  std::vector<std::vector<std::byte>> icons_;
  std::vector<AppMenuItem> items_;
};

// The resident memory of this process in KiB.
double ResidentKiB() {
  std::ifstream file("/proc/self/statm");
  long size = 0;
  long resident = 0;
  file >> size >> resident;
  return static_cast<double>(resident * sysconf(_SC_PAGESIZE)) / 1024;
}

void BM_CopyMenuIcons(benchmark::State& state) {
  const Menu menu;
  for (auto _ : state) {
    auto* const to = static_cast<std::byte*>(std::malloc(std::size_t{3} << 20));
    benchmark::DoNotOptimize(menu.CopyIcons(to));
    benchmark::ClobberMemory();
    std::free(to);
  }
}

// The counter is the growth of resident memory during all runs, in KiB.
void RunMenu(benchmark::State& state, const GuestCommands::Submit& submit) {
  const GuestCommands commands(submit);
  const Menu menu;
  const double before = ResidentKiB();
  for (auto _ : state) {
    commands.GuestCmdAppMenu(menu.Items());
  }
  state.counters["kept_KiB"] = ResidentKiB() - before;
}

void BM_BuildMenu(benchmark::State& state) {
  RunMenu(state, Accept);
}

void BM_SendMenu(benchmark::State& state) {
  RunMenu(state, SubmitToNull);
}

BENCHMARK(BM_CopyMenuIcons);
BENCHMARK(BM_BuildMenu);
BENCHMARK(BM_SendMenu);

}  // namespace
}  // namespace qel

int main(int argc, char** argv) {
  setenv("LC_ALL", "C.UTF-8", 1);
  // Each large block is mapped separately and returned to the system when it is freed. By default the allocator would
  // keep blocks of sizes that were freed before.
  mallopt(M_MMAP_THRESHOLD, 512 * 1024);
  mallopt(M_TRIM_THRESHOLD, 512 * 1024);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
