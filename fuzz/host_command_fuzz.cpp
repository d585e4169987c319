// Host commands, from the bytes of a fetch to their effect. Programs are not really started or signalled.
//
// The first fetch returns the first 4096 bytes of the input, and the fetch of a large command returns the rest.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "apps/host_commands.h"
#include "log/log.h"

namespace {

void Expect(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  // Errors are always logged, so the log goes to a temporary directory.
  static std::string directory = "/tmp/host_command_fuzz.XXXXXX";
  Expect(mkdtemp(directory.data()) != nullptr);
  std::atexit([] { std::filesystem::remove_all(directory); });
  Expect(symlink("/dev/null", (directory + "/corvessan.log").c_str()) == 0);
  qel::SetLogDirectory(directory.c_str());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::byte> input = std::as_bytes(std::span(data, size));
  std::span<const std::byte> left = input;
  const qel::GuestCommands host([&](qel::TgRequest& request) {
    const qel::TgBuffer& reply = request.buffers[1];
    const std::size_t served = std::min<std::size_t>(reply.size, left.size());
    std::copy_n(left.begin(), served, reply.data);
    left = left.subspan(served);
    return true;
  });
  qel::RunningAppRegistry registry;
  *registry.Lock() = {{1, {{100, 200}, {101, 201}}}, {0x01010101, {{102, 202}}}};
  qel::WindowRequestQueue requests;
  qel::HostCommands commands(
      host, registry, requests,
      qel::ProcessEffects{
          .launch = [](const std::string&, const std::vector<std::string>& args) { Expect(!args.empty()); },
          .kill =
              [](pid_t pid, int) {
                Expect(pid > 0);
                return 0;
              }});
  commands.FetchAndExecute();
  commands.Execute(std::vector<std::byte>(input.begin(), input.end()));
  return 0;
}
