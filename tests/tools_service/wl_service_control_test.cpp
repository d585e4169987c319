// The Wayland control in this process, on a headless compositor. Entries of the binding's table are replaced where a
// call has to fail, and recorded where the order of releases matters.
#include "tools_service/wl_service_control.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cstdarg>
#include <cstdlib>
#include <optional>
#include <vector>

#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "tools_service/tools_service.h"
#include "tools_service/wayland_api.h"
#include "tools_service/wl_test_support.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

void SetVariable(const char* name, const std::optional<std::string>& value) {
  value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}

class WlServiceControlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = std::make_unique<TempDir>();
    directory_->Write("console/active", "tty2\n");
    const std::string path = directory_->Path();
    weston_ = Shell("XDG_RUNTIME_DIR=" + path +
                    " exec weston --backend=headless-backend.so --shell=kiosk-shell.so --no-config --idle-time=0"
                    " --socket=wayland-test >" +
                    path + "/weston.log 2>&1");
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(directory_->Path() / "wayland-test"); }));
  }
  static void TearDownTestSuite() {
    weston_.reset();
    directory_.reset();
  }

  void SetUp() override {
    SetVariable("XDG_RUNTIME_DIR", directory_->Path());
    SetVariable("WAYLAND_DISPLAY", "wayland-test");
    SetVariable("XDG_VTNR", "2");
  }

  static inline std::unique_ptr<TempDir> directory_;
  static inline std::unique_ptr<ChildProcess> weston_;
  ConsoleKey key_;
};

TEST_F(WlServiceControlTest, TerminalOfTheSession) {
  struct Row {
    std::optional<std::string> vtnr, console, tty0;
    std::string terminal;
    bool active;
  };
  const Row rows[] = {
      {"0", "tty0\n", "tty0\n", "tty0", true},
      {"63", "tty0\n", "tty63\n", "tty63", true},
      {"63", "tty6\n", {}, "tty63", false},
      {"64", "tty64\n", {}, "", false},
      {"-1", "tty1\n", {}, "", false},
      {"4294967297", "tty1\n", {}, "", false},
      {"text", "tty0\n", "tty1\n", "tty0", false},
      {"", "tty0\n", {}, "tty0", false},
      {{}, "tty0\n", "tty12\n", "tty12", true},
      {{}, "tty0 ttyS0\n", "tty4\n", "tty4", true},
      {{}, "ttyS10 tty0\n", "tty4\n", "ttyS1", true},
      {{}, "console\n", {}, "", false},
      {{}, {}, "tty4\n", "", false},
  };
  SetVariable("WAYLAND_DISPLAY", {});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.vtnr.value_or("unset") + ", " + row.console.value_or("no file"));
    const LogCapture log;
    const TempDir root;
    SetVariable("XDG_VTNR", row.vtnr);
    row.console ? root.Write("console/active", *row.console) : "";
    row.tty0 ? root.Write("tty0/active", *row.tty0) : "";
    QelWlServiceControl control(root.Path());
    ASSERT_TRUE(control.Init(key_.value, false));
    EXPECT_EQ(control.IsConsoleActive(), row.active);
    EXPECT_TRUE(control.Deinit());
    EXPECT_EQ(log.Count("Warning: Tools Service: no WAYLAND_DISPLAY environment variable found, will use default"), 1);
    EXPECT_EQ(log.Count("Warning: Tools Service: no XDG_VTNR environment variable found, will use current"), !row.vtnr);
    EXPECT_EQ(log.Count("Tools Service: initialized Wayland service on display 'wayland-0', VT '" + row.terminal + "'"),
              1);
  }
}

TEST_F(WlServiceControlTest, SessionLock) {
  const LogCapture log;
  QelWlServiceControl control;
  ASSERT_TRUE(control.Init(key_.value, true));
  const std::string name = "/Corvessan.ControlCenter.UserSession.{wayland-test}.lock'";
  SetVariable("XDG_RUNTIME_DIR", {});
  EXPECT_FALSE(control.OwnUserSession());
  EXPECT_TRUE(log.Contains("Warning: Tools Service: XDG_RUNTIME_DIR not set in the environment"));
  SetVariable("XDG_RUNTIME_DIR", "/nowhere");
  EXPECT_FALSE(control.OwnUserSession());
  EXPECT_TRUE(log.Contains("Warning: Tools Service: can't open lock file '/nowhere" + name +
                           " (error=No such file or directory)"));
  EXPECT_EQ(log.Count("Error: Tools Service: can't acquire user session lock"), 2);
  SetVariable("XDG_RUNTIME_DIR", directory_->Path());
  EXPECT_TRUE(control.OwnUserSession());
  EXPECT_TRUE(log.Contains("Tools Service: user session locked '" + directory_->Path().string() + name));
  EXPECT_TRUE(control.OwnUserSession());
  EXPECT_TRUE(log.Contains("Warning: Tools Service: user session lock file already created"));
  EXPECT_TRUE(control.Deinit());
}

// The binding comes back only after it was taken down.
TEST_F(WlServiceControlTest, BindingUnavailable) {
  const LogCapture log;
  EXPECT_FALSE(ToolsServiceDeinit());  // writes a line, so that the log file is open from here on
  rlimit earlier{};
  getrlimit(RLIMIT_NOFILE, &earlier);
  const rlimit no_new_files{0, earlier.rlim_max};
  setrlimit(RLIMIT_NOFILE, &no_new_files);  // so that the binding cannot open the client library
  EXPECT_FALSE(WaylandApiInit());
  setrlimit(RLIMIT_NOFILE, &earlier);
  EXPECT_FALSE(ToolsServiceInit(key_.value, kConnectionWayland, false));
  EXPECT_EQ(log.Count("Warning: Wayland API unsupported"), 1);
  WaylandApiDeinit();
  EXPECT_TRUE(ToolsServiceInit(key_.value, kConnectionWayland, false));
  EXPECT_TRUE(ToolsServiceDeinit());
}

// What the replaced entries of the binding's table saw.
struct Record {
  QelWlApi real = {};  // the entries as the binding filled them
  wl_proxy* registry = nullptr;
  QelWlApi::Listener listener = nullptr;  // the registry's, which comes first
  std::uint32_t output_name = 0;
  int bound = 0;
  int round_trips = 0;
  std::vector<std::string> released = {};
};
Record g_record;

wl_proxy* RecordRegistry(wl_proxy* proxy, std::uint32_t request, const wl_interface* interface, ...) {
  return g_record.registry = g_record.real.proxy_marshal_constructor(proxy, request, interface, nullptr);
}

wl_proxy* RecordBind(wl_proxy* proxy, std::uint32_t request, const wl_interface* type, std::uint32_t version, ...) {
  std::va_list arguments;
  va_start(arguments, version);
  g_record.output_name = va_arg(arguments, std::uint32_t);
  va_end(arguments);
  ++g_record.bound;
  return g_record.real.proxy_marshal_constructor_versioned(proxy, request, type, version, g_record.output_name,
                                                           "wl_output", version, nullptr);
}

void RecordCalls(QelWlApi& table) {
  g_record = {.real = table};
  table.proxy_marshal_constructor = RecordRegistry;
  table.proxy_marshal_constructor_versioned = RecordBind;
  table.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
    g_record.listener = proxy == g_record.registry ? listener : g_record.listener;
    return g_record.real.proxy_add_listener(proxy, listener, data);
  };
#define QEL_RECORD_RELEASE(entry, name, ...)                  \
  table.entry = [](auto* object __VA_OPT__(, ) __VA_ARGS__) { \
    g_record.released.push_back(name);                        \
    g_record.real.entry(object __VA_OPT__(, nullptr));        \
  }
  QEL_RECORD_RELEASE(proxy_set_user_data, "detach", void*);
  QEL_RECORD_RELEASE(proxy_destroy, object == g_record.registry ? "registry" : "output");
  QEL_RECORD_RELEASE(event_queue_destroy, "queue");
  QEL_RECORD_RELEASE(proxy_wrapper_destroy, "wrapper");
  QEL_RECORD_RELEASE(display_disconnect, "display");
}

// A function of any type that returns the number, or null for 0.
template <int kResult, typename Result, typename... Arguments>
Result Fail(Arguments...) {
  return (Result)kResult;
}
template <typename... Arguments>
wl_proxy* CreateNothing(Arguments..., ...) {
  return nullptr;
}

// One life of a control with a service, from Init() to Deinit().
struct Life {
  Life(const std::string& tty_root, key_t key, void (*sabotage)(QelWlApi&), void (*first_poll)(void* control)) {
    const LogCapture capture;
    QelWlServiceControl control(tty_root);
    ServiceDescriptor idle, service;
    idle.init = [](ServiceContext&) { return false; };
    idle.event = [&](ServiceContext&, void*) { events.push_back("idle"); };
    service.init = [&](ServiceContext& context) { return served = context.connection_type == kConnectionWayland; };
    service.poll = [&, polls = 0](ServiceContext&) mutable { ++polls == 1 ? first_poll(&control) : control.Stop(); };
    service.stop = [](ServiceContext&) { return true; };
    service.event = [&](ServiceContext&, void* data) {
      const auto& event = *static_cast<WlOutputEvent*>(data);
      events.push_back(std::to_string(event.width) + 'x' + std::to_string(event.height));
    };
    EXPECT_TRUE(control.Init(key, false));
    auto& table = const_cast<QelWlApi&>(WaylandApi());  // not constant: the program merely does not write to it
    RecordCalls(table);
    sabotage(table);
    control.AddService(&idle);
    control.AddService(&service);
    control.Run(10);
    EXPECT_TRUE(control.Deinit());
    for (const std::string& line : capture.Texts()) {
      log += line + '\n';
    }
  }

  bool served = false;
  std::vector<std::string> events;
  std::string log;
};

TEST_F(WlServiceControlTest, FailedStepsReleaseWhatExists) {
  struct Row {
    void (*sabotage)(QelWlApi& table);
    std::string log;
    std::vector<std::string> released = {};
    bool served = false;
  };
  const std::vector<std::string> unbound{"registry", "queue", "wrapper", "display"};
  const std::vector<std::string> all{"detach", "output", "registry", "queue", "wrapper", "display"};
  const Row rows[] = {
      {[](QelWlApi& api) { api.display_connect = Fail<0>; }, "Error: Tools Service: can't open connection to Wayland!"},
      {[](QelWlApi& api) { api.proxy_create_wrapper = Fail<0>; },
       "Error: Tools Service: Couldn't create Wayland display wrapper!\n\n",
       {"display"}},
      {[](QelWlApi& api) { api.display_create_queue = Fail<0>; },
       "Error: Tools Service: Couldn't create to Wayland queue!\n\n",
       {"wrapper", "display"}},
      {[](QelWlApi& api) { api.proxy_marshal_constructor = CreateNothing; },
       "Error: Tools Service: Couldn't create to Wayland display registry!\n\n",
       {"queue", "wrapper", "display"}},
      {[](QelWlApi& api) { api.proxy_add_listener = Fail<-7>; },
       "Error: Tools Service: Couldn't add Wayland registry listener (res=-7)!\n\n", unbound},
      {[](QelWlApi& api) { api.display_roundtrip_queue = Fail<-1>; },
       "Error: Tools Service: Couldn't roundtrip Wayland queue (res=-1)!\n\n", unbound},
      {[](QelWlApi& api) {
         api.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
           return proxy == g_record.registry ? g_record.real.proxy_add_listener(proxy, listener, data) : -2;
         };
       },
       "addedwith errors\n", all, true},
      {[](QelWlApi& api) { api.proxy_marshal_constructor_versioned = CreateNothing; },
       "Error: Tools Service: Couldn't add Wayland output listener (res=-1) for wloutput=(nil) !\n\n", unbound, true},
      {[](QelWlApi& api) {
         api.display_roundtrip_queue = [](wl_display* display, wl_event_queue* queue) {
           return ++g_record.round_trips == 1 ? g_record.real.display_roundtrip_queue(display, queue) : -5;
         };
       },
       "Error: Tools Service: Couldn't roundtrip Wayland queue (res=-5), while handle events\n", all, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.log);
    const Life life(directory_->Path(), key_.value, row.sabotage, [](void*) {});
    EXPECT_THAT(life.log, HasSubstr(row.log));
    EXPECT_EQ(life.served, row.served);
    EXPECT_EQ(life.log.find("Warning: Tools Service: can't initialize Wayland worker thread!") == std::string::npos,
              row.served);
    EXPECT_EQ(g_record.released, row.released);
  }
}

TEST_F(WlServiceControlTest, EventsReachActiveServicesAndGlobalsAreBoundOnce) {
  const Life life(
      directory_->Path(), key_.value, [](QelWlApi&) {},
      [](void* control) {
        using Global = void (*)(void*, wl_proxy*, std::uint32_t, const char*, std::uint32_t);
        using Remove = void (*)(void*, wl_proxy*, std::uint32_t);
        const auto global = reinterpret_cast<Global>(g_record.listener[0]);
        const auto remove = reinterpret_cast<Remove>(g_record.listener[1]);
        global(control, g_record.registry, g_record.output_name, "wl_output", 1);
        remove(control, g_record.registry, 4242);
        remove(control, g_record.registry, g_record.output_name);
      });
  EXPECT_THAT(life.events, ElementsAre("1024x640"));
  EXPECT_EQ(g_record.bound, 1);
  EXPECT_THAT(life.log, HasSubstr("Warning: Tools Service: output already initialized\n"));
  EXPECT_THAT(g_record.released, ElementsAre("output", "registry", "queue", "wrapper", "display"));
}

}  // namespace
}  // namespace qel::test
