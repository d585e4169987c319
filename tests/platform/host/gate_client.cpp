// A stand-in for an agent: says a few things, then fetches commands until it is told to reset.
// With "bad" as its argument one of its messages breaks the format.
#include <cstdio>
#include <cstring>
#include <thread>

#include "low_memory_client.h"
#include "messages.h"

int main(int argc, char** argv) {
  using namespace qel::host;        // NOLINT(google-build-using-namespace)
  using namespace qel::host::test;  // NOLINT(google-build-using-namespace)
  LowMemoryClient client;
  if (!client.IsOpen()) {
    std::printf("open: %s\n", std::strerror(client.OpenError()));
    return 9;
  }
  GateRequest menu = AppMenuRequest({MenuEntryFields("/apps/ed.desktop", "Ed", "Office", TextBytes("<svg/>"))});
  if (argc > 1 && std::strcmp(argv[1], "bad") == 0) StoreU32(menu.buffers[0].data, 8, 5);
  for (const GateRequest& request : {ProbeRequest(), InBuffers(RegisterMessage("svc")), ToolStateRequest(true), menu,
                                     AddRunRequest(7, 0x46, "A \"title\"", 2, 2, false), FinishEnumRequest()}) {
    client.SubmitUntilTaken(request);
  }
  for (int tries = 0; tries < 3000; ++tries) {
    const Bytes command = client.Submit(FetchRequest(false, 4096)).buffers[1];
    if (LoadU32(command, 8) != UINT32_MAX) {
      std::printf("command %u of %u bytes\n", LoadU32(command, 0), LoadU32(command, 16));
      std::fflush(stdout);
      if (LoadU32(command, 0) == 1) return 0;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return 8;
}
