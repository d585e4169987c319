// Host commands, from the bytes of a fetch to their effect. Programs are not really started or signalled.
//
// The first fetch returns the first 4096 bytes of the input, and the fetch of a large command returns the rest.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <set>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "apps/host_commands.h"
#include "base/overloaded.h"
#include "support/file_tree.h"
#include "support/fuzzed_data.h"
#include "tools_gate/little_endian.h"

namespace {

using qel::WindowId;
using qel::fuzz::Expect;

constexpr std::size_t kLargestFetched = 65536;

const qel::RunningAppRegistry::Map kApps{{1, {{100, 200}, {101, 201}}}, {0x01010101, {{102, 202}}}};
const std::set<WindowId> kTopLevels{100, 101, 102};

void AddFiles(qel::fuzz::FileTree& tree) {
  tree.AddFile("/proc/mounts", "none / tmpfs rw 0 0\nHome /media/My\\040Home qel_fs rw 0 0\n");
  tree.AddFile("/b/p", {.content = {}, .is_executable = true});
  tree.AddFile("/b/a.desktop", "[Desktop Entry]\nExec=a \"b c\" %U --x=%f %i %c\n");
  tree.AddFile("/b/f.desktop", "[Desktop Entry]\nExec=%f b\n");
  tree.AddFile("/b/q.desktop", "[Desktop Entry]\nExec=a \"b\n");
}

void CheckLaunch(const std::string& app, const std::vector<std::string>& args) {
  Expect(!args.empty(), "a program is named");
  Expect(args[0] == app || args[0] == "a" || (app.ends_with("f.desktop") && args[0] == "b"),
         "the program is the one that the host named, or that the desktop entry names");
  Expect(!std::ranges::any_of(args, [](const std::string& text) { return text.find('\0') != text.npos; }),
         "an argument ends at its first zero");
}

// Returns the answer of a host that has these bytes to serve. A large command is made at most 64 KiB large, or is left
// too large: memory of many megabytes would only slow the fuzzer down.
bool Serve(std::span<const std::byte>& left, const qel::TgBuffer& reply) {
  const std::size_t served = std::min<std::size_t>(reply.size, left.size());
  std::copy_n(left.begin(), served, reply.data);
  left = left.subspan(served);
  if (reply.size == 4096 && qel::LoadU32(reply.data) == 126) {
    const std::uint32_t wanted = qel::LoadU32(reply.data + 20);
    qel::StoreU32(reply.data + 20, wanted < 0x8000'0000 ? wanted % (kLargestFetched + 1) : wanted);
  }
  return served > 0;
}

// Every request names registered windows, except one that the command itself names.
void CheckRequests(qel::WindowRequestQueue& requests) {
  Expect(requests.Size() <= kTopLevels.size(), "a command makes one request per window at most");
  int unknown = 0;
  while (const auto request = requests.TakeFirst()) {
    std::visit(qel::Overloaded{[&](const qel::ActivateRequest& activate) {
                                 Expect(activate.window != 0, "an activated window has an id");
                                 unknown += kTopLevels.contains(activate.window) ? 0 : 1;
                               },
                               [](const qel::MinimizeRequest& minimize) {
                                 Expect(kTopLevels.contains(minimize.window), "only registered windows are hidden");
                               },
                               [](const qel::CloseRequest& close) {
                                 Expect(!close.windows.empty(), "only registered windows are closed");
                               },
                               [](const qel::ReenumerateRequest&) {}},
               *request);
  }
  Expect(unknown <= 1, "only named windows are activated");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("LC_ALL", "C.UTF-8", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FileTree tree;
  AddFiles(tree);
  const std::span<const std::byte> input = std::as_bytes(std::span(data, size));
  std::span<const std::byte> left = input;
  const qel::GuestCommands host([&](qel::TgRequest& request) { return Serve(left, request.buffers[1]); });
  qel::RunningAppRegistry registry;
  qel::WindowRequestQueue requests;
  qel::HostCommands commands(host, registry, requests, {.launch = CheckLaunch, .kill = [](pid_t pid, int) {
                                                          Expect(pid > 0, "one process is signalled");
                                                          return 0;
                                                        }});
  *registry.Lock() = kApps;
  commands.Execute(input);
  CheckRequests(requests);

  *registry.Lock() = kApps;
  commands.FetchAndExecute();
  CheckRequests(requests);
  return 0;
}
