// tools_service_test_agent <key> <log directory> <period ms> [busy]: runs one service on the X11 control as the agent
// does, writes the service's calls to standard output, one a line, and exits with 0. With "busy" every poll asks the
// server something, again and again, until the process is asked to stop.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "log/log.h"
#include "tools_service/tools_service.h"
#include "tools_service/x_library.h"
#include "tools_service/x_requests.h"

namespace {

void OnSignal(int) {
  const qel::SignalHandlerScope scope;
  qel::ToolsServiceStop();
}

void Say(const char* text) {
  std::printf("%s\n", text);
  std::fflush(stdout);
}

void AskServer(qel::ServiceContext& context) {
  auto* display = static_cast<Display*>(context.display);
  while (qel::ToolsServiceIsRunning()) {
    qel::x_requests::RoundTrip(display);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    return 2;
  }
  const bool busy = argc > 4;
  qel::SetLogLevel(2);
  qel::SetLogDirectory(argv[2]);
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigaction(SIGTERM, &action, nullptr);
  qel::ServiceDescriptor service;
  service.name = "test";
  service.init = [](qel::ServiceContext&) {
    Say("init");
    // Long enough for a signal to arrive meanwhile.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    Say("initialised");
    return true;
  };
  service.poll = [busy](qel::ServiceContext& context) {
    Say("poll");
    if (busy) {
      AskServer(context);
    }
  };
  service.stop = [](qel::ServiceContext& context) {
    // Works on the display as services do, whether or not the connection still stands.
    qel::x_api.XSync(static_cast<Display*>(context.display), False);
    Say("stop");
    return true;
  };
  if (qel::ToolsServiceInit(std::atoi(argv[1]), qel::kConnectionX11, true)) {
    qel::ToolsServiceAddService(&service);
    qel::ToolsServiceRun(static_cast<unsigned>(std::atoi(argv[3])));
  }
  qel::ToolsServiceDeinit();
  return 0;
}
