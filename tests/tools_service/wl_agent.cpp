// wl_agent KEY TTY_ROOT LOG_DIRECTORY [--own-session]
// Runs the Tools Service on the session's Wayland display with one service, whose callbacks it prints to standard
// output, until SIGTERM or the end of the compositor. KEY is the console semaphore's; TTY_ROOT stands for
// /sys/class/tty.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "tools_service/wl_service_control.h"

namespace {

qel::QelWlServiceControl* g_control = nullptr;

void StopControl(int /*signal*/) {
  const qel::SignalHandlerScope scope;
  g_control->Stop();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  qel::SetLogLevel(qel::kLogInfo);
  qel::SetLogDirectory(argv[3]);
  const bool own_session = argc > 4 && std::strcmp(argv[4], "--own-session") == 0;

  qel::ServiceDescriptor recorder;
  recorder.name = "recorder";
  recorder.init = [](qel::ServiceContext& context) {
    std::printf("init type %d\n", context.connection_type);
    return true;
  };
  recorder.poll = [](qel::ServiceContext&) { std::puts("poll"); };
  recorder.stop = [](qel::ServiceContext&) {
    std::puts("stop");
    return true;
  };
  recorder.event = [](qel::ServiceContext&, void* data) {
    const auto& event = *static_cast<qel::WlOutputEvent*>(data);
    std::printf("mode %dx%d flags %x\n", event.width, event.height, event.flags);
  };

  qel::QelWlServiceControl control(argv[2]);
  g_control = &control;
  if (!control.Init(std::atoi(argv[1]), own_session)) {
    return 1;
  }
  std::signal(SIGTERM, StopControl);
  control.AddService(&recorder);
  control.Run(100);
  return control.Deinit() ? 0 : 1;
}
