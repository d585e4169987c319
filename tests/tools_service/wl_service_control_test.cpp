// The Wayland control on a real compositor. To make a call fail, a test replaces its entry in the binding's table. The
// sanitizer reports what is never released, or used after its release.
#include "tools_service/wl_service_control.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <fstream>
#include <iterator>
#include <optional>

#include "recording_service.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"
#include "tools_service/tools_service.h"
#include "tools_service/wayland_api.h"

namespace qel::test {
namespace {

using ::testing::Contains;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using Text = std::optional<std::string>;

// A headless compositor with one output of 640x480 pixels.
class WlServiceControlTest : public ::testing::Test {
 protected:
  WlServiceControlTest() {
    directory_.Write("console/active", "tty2");
    service_.on_init = [](ServiceContext& context) { return context.connection_type == kConnectionWayland; };
    // The socket's file exists before the compositor listens, so wait for its log instead.
    EXPECT_TRUE(WaitUntil([this] {
      std::ifstream file(path_ + "/weston.out");
      const std::string said(std::istreambuf_iterator<char>(file), {});
      return said.find("launching") != std::string::npos;
    }));
  }
  void Init() {
    ASSERT_TRUE(control_.Init(key_.Value(), true));
    control_.AddService(&service_.descriptor);
  }
  void Run() {
    control_.Run(10);
    EXPECT_TRUE(control_.Deinit());
  }

  const TempDir directory_;
  const std::string path_ = directory_.Path();
  ChildProcess compositor_{{.arguments = {"sh", "-c",
                                          "XDG_RUNTIME_DIR=" + path_ +
                                              " exec weston --backend=headless-backend.so --no-config "
                                              "--socket=wayland-2 --width=640 --height=480 >" +
                                              path_ + "/weston.out 2>&1"}}};
  ScopedEnvironment environment_{{{"XDG_RUNTIME_DIR", path_}, {"WAYLAND_DISPLAY", "wayland-2"}, {"XDG_VTNR", "2"}}};
  const LogCapture log_;
  const SemaphoreKey key_;
  Journal journal_;
  RecordingService service_{"service", journal_};
  QelWlServiceControl control_{path_};
  QelWlApi& api_ = const_cast<QelWlApi&>(WaylandApi());  // each Init() fills it again
};

TEST_F(WlServiceControlTest, TerminalOfTheSession) {
  const struct {
    Text vtnr, console, tty0;
    std::string terminal;
    bool active;
  } rows[] = {
      {"63", "tty0\n", "tty63\n", "tty63", true},
      {"63", "tty6\n", {}, "tty63", false},
      {"64", "tty64\n", {}, "", false},
      {{}, "tty0 ttyS0\n", "tty12\n", "tty12", true},
      {{}, "ttyS10 tty0\n", "tty4\n", "ttyS1", true},
      {{}, {}, "tty4\n", "", false},
  };
  for (const auto& row : rows) {
    const LogCapture log;
    const TempDir root;
    const ScopedEnvironment environment({{"XDG_VTNR", row.vtnr}, {"WAYLAND_DISPLAY", {}}});
    row.console ? root.Write("console/active", *row.console) : "";
    row.tty0 ? root.Write("tty0/active", *row.tty0) : "";
    QelWlServiceControl control(root.Path());
    ASSERT_TRUE(control.Init(key_.Value(), false));
    EXPECT_EQ(control.IsConsoleActive(), row.active);
    EXPECT_TRUE(control.Deinit());
    EXPECT_THAT(log.Texts(), Contains("Tools Service: initialized Wayland service on display 'wayland-0', VT '" +
                                      row.terminal + "'"));
  }
}

TEST_F(WlServiceControlTest, SessionLock) {
  const auto acquire_elsewhere = [] { _exit(SessionLock().Acquire("wayland-2") ? 1 : 0); };
  {
    SessionLock lock;
    for (const Text& directory : {Text(), Text("/nowhere")}) {
      const ScopedEnvironment environment({{"XDG_RUNTIME_DIR", directory}});
      EXPECT_FALSE(lock.Acquire("wayland-2"));
    }
    EXPECT_TRUE(lock.Acquire("wayland-2") && lock.Acquire("wayland-2"));
    EXPECT_EXIT(acquire_elsewhere(), ExitedWithCode(0), "");
  }
  EXPECT_EXIT(acquire_elsewhere(), ExitedWithCode(1), "");
  EXPECT_TRUE(std::filesystem::exists(path_ + "/Corvessan.ControlCenter.UserSession.{wayland-2}.lock"));
}

// The binding tries again only after WaylandApiDeinit().
TEST_F(WlServiceControlTest, BindingUnavailable) {
  EXPECT_FALSE(ToolsServiceDeinit());  // logs a line, so that the log file is already open
  rlimit earlier{};
  getrlimit(RLIMIT_NOFILE, &earlier);
  const rlimit no_new_files{0, earlier.rlim_max};
  setrlimit(RLIMIT_NOFILE, &no_new_files);  // prevents the binding from opening the client library
  EXPECT_FALSE(WaylandApiInit());
  setrlimit(RLIMIT_NOFILE, &earlier);
  EXPECT_FALSE(ToolsServiceInit(key_.Value(), kConnectionWayland, false));
  WaylandApiDeinit();
  EXPECT_TRUE(ToolsServiceInit(key_.Value(), kConnectionWayland, false));
  EXPECT_TRUE(ToolsServiceDeinit());
}

// Functions for the table that return null.
template <typename Result, typename... Arguments>
Result* Null(Arguments...) {
  return nullptr;
}
template <typename... Arguments>
wl_proxy* NoProxy(Arguments..., ...) {
  return nullptr;
}

TEST_F(WlServiceControlTest, FailedStepsReleaseWhatExists) {
  const struct {
    void (*sabotage)(QelWlApi& api);
    const char* log;
    bool served = false;
  } rows[] = {
      {[](QelWlApi& api) { api.display_connect = Null; }, "can't open connection to Wayland!"},
      {[](QelWlApi& api) { api.proxy_create_wrapper = Null; }, "Couldn't create Wayland display wrapper!"},
      {[](QelWlApi& api) { api.display_create_queue = Null; }, "Couldn't create to Wayland queue!"},
      {[](QelWlApi& api) { api.proxy_marshal_constructor = NoProxy; }, "Couldn't create to Wayland display registry!"},
      {[](QelWlApi& api) { api.proxy_add_listener = [](wl_proxy*, QelWlApi::Listener, void*) { return -7; }; },
       "Couldn't add Wayland registry listener (res=-7)!"},
      {[](QelWlApi& api) { api.display_roundtrip_queue = [](wl_display*, wl_event_queue*) { return -5; }; },
       "Couldn't roundtrip Wayland queue (res=-5)!"},
      {[](QelWlApi& api) { api.proxy_marshal_constructor_versioned = NoProxy; },
       "Couldn't add Wayland output listener (res=-1) for wloutput=(nil) !", true},
  };
  service_.on_poll = [&](ServiceContext&) { control_.Stop(); };
  for (const auto& row : rows) {
    Init();
    row.sabotage(api_);
    Run();
    EXPECT_THAT(log_.Texts(), Contains(HasSubstr(row.log)));
    EXPECT_EQ(journal_.Count("service.poll"), row.served);
  }
}

// Announces and removes the real output again, removes an unknown output, and ends the compositor.
TEST_F(WlServiceControlTest, OutputsAndCompositorComeAndGo) {
  using Global = void (*)(void*, wl_proxy*, std::uint32_t, const char*, std::uint32_t);
  using Remove = void (*)(void*, wl_proxy*, std::uint32_t);
  static decltype(QelWlApi::proxy_add_listener) add_listener;
  static std::vector<std::pair<wl_proxy*, QelWlApi::Listener>> listening;  // the registry is the first element
  service_.descriptor.event = [&](ServiceContext&, void* data) {
    const auto& event = *static_cast<WlOutputEvent*>(data);
    journal_.Add(std::to_string(event.width) + 'x' + std::to_string(event.height));
  };
  Init();
  add_listener = api_.proxy_add_listener;
  api_.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
    listening.emplace_back(proxy, listener);
    return add_listener(proxy, listener, data);
  };
  std::uint32_t name = 0;  // the number of the output, taken from the log
  service_.on_poll = [&](ServiceContext&) {
    const auto [registry, told] = listening[0];
    if (journal_.Count("service.poll") == 1) {
      for (const std::string& line : log_.Texts()) {
        std::sscanf(line.c_str(), "Tools Service: output (name=%u", &name);
      }
      reinterpret_cast<Global>(told[0])(&control_, registry, name, "wl_output", 1);
      reinterpret_cast<Remove>(told[1])(&control_, registry, 4242);
      reinterpret_cast<Remove>(told[1])(&control_, registry, name);
      reinterpret_cast<Global>(told[0])(&control_, registry, name, "wl_output", 1);
    } else if (journal_.Count("640x480") == 2 || journal_.Count("service.poll") > 500) {
      compositor_.Kill(SIGKILL);
    }
  };
  Run();
  ASSERT_EQ(listening.size(), 3U) << "one registry, two outputs\n" << testing::PrintToString(log_.Texts());
  EXPECT_EQ(journal_.Count("640x480"), 2);
  EXPECT_EQ(journal_.Entries().back(), "service.stop");
  EXPECT_TRUE(log_.Contains("Tools Service: user session unlocked"));
}

}  // namespace
}  // namespace qel::test
