// The Wayland control in this process, on a headless compositor. Entries of the binding's table are replaced where a
// call has to fail, and recorded where the order of releases matters.
#include "tools_service/wl_service_control.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdarg>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "tools_service/tools_service.h"
#include "tools_service/wayland_api.h"
#include "tools_service/wl_test_support.h"

namespace qel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr const char* kDisplay = "wayland-test";

class WlServiceControlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = std::make_unique<TempDir>();
    const int log = open((directory_->Path() / "weston.log").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    weston_ = std::make_unique<ChildProcess>(
        ChildOptions{.arguments = {"weston", "--backend=headless-backend.so", "--shell=kiosk-shell.so", "--no-config",
                                   "--idle-time=0", std::string("--socket=") + kDisplay},
                     .environment = {{"XDG_RUNTIME_DIR", directory_->Path().string()}},
                     .standard_output = log,
                     .standard_error = log,
                     .inherited = {}});
    close(log);
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(directory_->Path() / kDisplay); }));
    directory_->Write("console/active", "tty2\n");
  }

  static void TearDownTestSuite() {
    weston_.reset();
    directory_.reset();
  }

  static inline std::unique_ptr<TempDir> directory_;
  static inline std::unique_ptr<ChildProcess> weston_;

  ConsoleKey key_;
  LogCapture log_;
  ScopedVariable runtime_directory_{"XDG_RUNTIME_DIR", directory_->Path().string()};
  ScopedVariable display_{"WAYLAND_DISPLAY", kDisplay};
  ScopedVariable terminal_{"XDG_VTNR", "2"};
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
      {{}, "tty5\n", "tty1\n", "tty5", true},
      {{}, "tty0\n", "tty12\n", "tty12", true},
      {{}, "tty0 ttyS0\n", "tty4\n", "tty4", true},
      {{}, "ttyS10 tty0\n", "tty4\n", "ttyS1", true},
      {{}, "console\n", {}, "", false},
      {{}, "", {}, "", false},
      {{}, {}, "tty4\n", "", false},
  };
  const ScopedVariable no_display("WAYLAND_DISPLAY", {});
  for (const Row& row : rows) {
    SCOPED_TRACE(row.vtnr.value_or("unset") + ", " + row.console.value_or("no file"));
    const LogCapture log;
    const TempDir root;
    const ScopedVariable vtnr("XDG_VTNR", row.vtnr);
    if (row.console) {
      root.Write("console/active", *row.console);
    }
    if (row.tty0) {
      root.Write("tty0/active", *row.tty0);
    }
    QelWlServiceControl control(root.Path());
    ASSERT_TRUE(control.Init(key_.Value(), false));
    EXPECT_EQ(control.IsConsoleActive(), row.active);
    EXPECT_TRUE(control.Deinit());
    EXPECT_TRUE(
        log.Contains("Tools Service: initialized Wayland service on display 'wayland-0', VT '" + row.terminal + "'"));
    EXPECT_TRUE(
        log.Contains("Warning: Tools Service: no WAYLAND_DISPLAY environment variable found, will use default"));
    EXPECT_EQ(log.Contains("Warning: Tools Service: no XDG_VTNR environment variable found, will use current"),
              !row.vtnr);
  }
}

TEST_F(WlServiceControlTest, SessionLock) {
  QelWlServiceControl control(directory_->Path());
  ASSERT_TRUE(control.Init(key_.Value(), true));
  const std::string name = "/Corvessan.ControlCenter.UserSession.{wayland-test}.lock";
  {
    const ScopedVariable unset("XDG_RUNTIME_DIR", {});
    EXPECT_FALSE(control.OwnUserSession());
  }
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: XDG_RUNTIME_DIR not set in the environment"));
  {
    const ScopedVariable missing("XDG_RUNTIME_DIR", "/nowhere");
    EXPECT_FALSE(control.OwnUserSession());
  }
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: can't open lock file '/nowhere" + name +
                            "' (error=No such file or directory)"));
  EXPECT_EQ(log_.Count("Error: Tools Service: can't acquire user session lock"), 2);

  EXPECT_TRUE(control.OwnUserSession());
  EXPECT_TRUE(log_.Contains("Tools Service: user session locked '" + directory_->Path().string() + name + "'"));
  EXPECT_TRUE(control.OwnUserSession());
  EXPECT_TRUE(log_.Contains("Warning: Tools Service: user session lock file already created"));
  EXPECT_TRUE(control.Deinit());
}

// The binding comes back only after it was taken down.
TEST_F(WlServiceControlTest, BindingUnavailable) {
  QelWlServiceControl control;
  EXPECT_FALSE(ToolsServiceDeinit());  // writes a line, so that the log file is open from here on
  rlimit earlier{};
  getrlimit(RLIMIT_NOFILE, &earlier);
  const rlimit no_new_files{0, earlier.rlim_max};
  setrlimit(RLIMIT_NOFILE, &no_new_files);  // so that the binding cannot open the client library
  EXPECT_FALSE(control.Init(key_.Value(), false));
  setrlimit(RLIMIT_NOFILE, &earlier);
  EXPECT_FALSE(control.Init(key_.Value(), false));
  EXPECT_EQ(log_.Count("Warning: Wayland API unsupported"), 1);
  WaylandApiDeinit();
  EXPECT_TRUE(ToolsServiceInit(key_.Value(), kConnectionWayland, false));
  EXPECT_EQ(log_.Count("Wayland API initialized"), 1);
  EXPECT_TRUE(ToolsServiceDeinit());
}

TEST_F(WlServiceControlTest, WorkerOfAnotherConnectionType) {
  struct Mistyped : QelWlServiceControl {
    int ConnectionType() const override { return kConnectionX11; }
  } control;
  ASSERT_TRUE(control.Init(key_.Value(), false));
  control.Run(10);
  EXPECT_TRUE(log_.Contains("Error: Tools Service: wrong connection type (1) for Wl worker thread!"));
  EXPECT_TRUE(log_.Contains("Tools Service: performing cleanup..."));
  EXPECT_TRUE(control.Deinit());
}

// What the recorded table entries saw.
struct Record {
  QelWlApi real;  // the entries as the binding filled them
  wl_proxy* registry = nullptr;
  QelWlApi::Listener registry_listener = nullptr;
  void* listener_data = nullptr;
  std::vector<std::uint32_t> bound;  // registry names
  int round_trips = 0;
  std::vector<std::string> released;
};
Record g_record;

// The binding's table is not constant; the program merely does not write to it.
QelWlApi& Table() {
  return const_cast<QelWlApi&>(WaylandApi());
}

wl_proxy* RecordRegistry(wl_proxy* proxy, std::uint32_t request, const wl_interface* interface, ...) {
  return g_record.registry = g_record.real.proxy_marshal_constructor(proxy, request, interface, nullptr);
}

wl_proxy* RecordBind(wl_proxy* proxy, std::uint32_t request, const wl_interface* interface, std::uint32_t version,
                     ...) {
  std::va_list arguments;
  va_start(arguments, version);
  const std::uint32_t name = va_arg(arguments, std::uint32_t);
  va_end(arguments);
  g_record.bound.push_back(name);
  return g_record.real.proxy_marshal_constructor_versioned(proxy, request, interface, version, name, "wl_output",
                                                           version, nullptr);
}

wl_proxy* NoRegistry(wl_proxy*, std::uint32_t, const wl_interface*, ...) {
  return nullptr;
}

wl_proxy* NoOutput(wl_proxy*, std::uint32_t, const wl_interface*, std::uint32_t, ...) {
  return nullptr;
}

void RecordCalls() {
  g_record = {};
  g_record.real = Table();
  QelWlApi& table = Table();
  table.proxy_marshal_constructor = RecordRegistry;
  table.proxy_marshal_constructor_versioned = RecordBind;
  table.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
    if (proxy == g_record.registry) {
      g_record.registry_listener = listener;
      g_record.listener_data = data;
    }
    return g_record.real.proxy_add_listener(proxy, listener, data);
  };
  table.display_roundtrip_queue = [](wl_display* display, wl_event_queue* queue) {
    ++g_record.round_trips;
    return g_record.real.display_roundtrip_queue(display, queue);
  };
  table.proxy_set_user_data = [](wl_proxy* proxy, void* data) {
    g_record.released.push_back(data == nullptr ? "detach output" : "?");
    g_record.real.proxy_set_user_data(proxy, data);
  };
  table.proxy_destroy = [](wl_proxy* proxy) {
    g_record.released.push_back(proxy == g_record.registry ? "registry" : "output");
    g_record.real.proxy_destroy(proxy);
  };
  table.event_queue_destroy = [](wl_event_queue* queue) {
    g_record.released.push_back("queue");
    g_record.real.event_queue_destroy(queue);
  };
  table.proxy_wrapper_destroy = [](void* wrapper) {
    g_record.released.push_back("wrapper");
    g_record.real.proxy_wrapper_destroy(wrapper);
  };
  table.display_disconnect = [](wl_display* display) {
    g_record.released.push_back("display");
    g_record.real.display_disconnect(display);
  };
}

TEST_F(WlServiceControlTest, FailedStepsReleaseWhatExists) {
  struct Row {
    void (*sabotage)(QelWlApi& table);
    std::string log;
    std::vector<std::string> released;
    bool served = false;
  };
  const std::vector<std::string> all{"detach output", "output", "registry", "queue", "wrapper", "display"};
  const Row rows[] = {
      {[](QelWlApi& table) { table.display_connect = [](const char*) -> wl_display* { return nullptr; }; },
       "Error: Tools Service: can't open connection to Wayland!\n",
       {}},
      {[](QelWlApi& table) { table.proxy_create_wrapper = [](void*) -> void* { return nullptr; }; },
       "Error: Tools Service: Couldn't create Wayland display wrapper!\n\n",
       {"display"}},
      {[](QelWlApi& table) { table.display_create_queue = [](wl_display*) -> wl_event_queue* { return nullptr; }; },
       "Error: Tools Service: Couldn't create to Wayland queue!\n\n",
       {"wrapper", "display"}},
      {[](QelWlApi& table) { table.proxy_marshal_constructor = NoRegistry; },
       "Error: Tools Service: Couldn't create to Wayland display registry!\n\n",
       {"queue", "wrapper", "display"}},
      {[](QelWlApi& table) { table.proxy_add_listener = [](wl_proxy*, QelWlApi::Listener, void*) { return -7; }; },
       "Error: Tools Service: Couldn't add Wayland registry listener (res=-7)!\n\n",
       {"registry", "queue", "wrapper", "display"}},
      {[](QelWlApi& table) { table.display_roundtrip_queue = [](wl_display*, wl_event_queue*) { return -1; }; },
       "Error: Tools Service: Couldn't roundtrip Wayland queue (res=-1)!\n\n",
       {"registry", "queue", "wrapper", "display"}},
      {[](QelWlApi& table) {
         table.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
           return proxy == g_record.registry ? g_record.real.proxy_add_listener(proxy, listener, data) : -2;
         };
       },
       "addedwith errors\n", all, true},
      {[](QelWlApi& table) { table.proxy_marshal_constructor_versioned = NoOutput; },
       "Error: Tools Service: Couldn't add Wayland output listener (res=-1) for wloutput=(nil) !\n\n",
       {"registry", "queue", "wrapper", "display"},
       true},
      {[](QelWlApi& table) {
         table.display_roundtrip_queue = [](wl_display* display, wl_event_queue* queue) {
           return ++g_record.round_trips == 1 ? g_record.real.display_roundtrip_queue(display, queue) : -5;
         };
       },
       "Error: Tools Service: Couldn't roundtrip Wayland queue (res=-5), while handle events\n", all, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.log);
    const LogCapture log;
    QelWlServiceControl control(directory_->Path());
    ServiceDescriptor service;
    bool served = false;
    service.init = [&](ServiceContext&) { return served = true; };
    service.poll = [&](ServiceContext&) { control.Stop(); };
    service.stop = [](ServiceContext&) { return true; };
    ASSERT_TRUE(control.Init(key_.Value(), false));
    RecordCalls();
    row.sabotage(Table());
    control.AddService(&service);
    control.Run(10);
    EXPECT_TRUE(control.Deinit());

    std::string text;
    for (const std::string& line : log.Texts()) {
      text += line + '\n';
    }
    EXPECT_THAT(text, HasSubstr(row.log));
    EXPECT_EQ(served, row.served);
    EXPECT_EQ(log.Contains("Warning: Tools Service: can't initialize Wayland worker thread!"), !row.served);
    EXPECT_EQ(g_record.released, row.released);
    EXPECT_EQ(log.Contains("Tools Service: Wayland service cleanup completed"), !row.released.empty());
  }
}

TEST_F(WlServiceControlTest, EventsReachActiveServicesAndGlobalsAreBoundOnce) {
  QelWlServiceControl control(directory_->Path());
  std::vector<std::string> events;
  ServiceDescriptor idle, active;
  idle.init = [](ServiceContext&) { return false; };
  idle.event = [&](ServiceContext&, void*) { events.push_back("idle"); };
  active.init = [](ServiceContext& context) { return context.connection_type == kConnectionWayland; };
  active.event = [&](ServiceContext&, void* data) {
    const auto& event = *static_cast<WlOutputEvent*>(data);
    events.push_back(std::to_string(event.type) + ' ' + std::to_string(event.width) + 'x' +
                     std::to_string(event.height) + ' ' + std::to_string(event.flags));
  };
  int polls = 0;
  active.poll = [&](ServiceContext&) {
    if (++polls > 1) {
      return control.Stop();
    }
    const auto global = reinterpret_cast<void (*)(void*, wl_proxy*, std::uint32_t, const char*, std::uint32_t)>(
        g_record.registry_listener[0]);
    const auto remove = reinterpret_cast<void (*)(void*, wl_proxy*, std::uint32_t)>(g_record.registry_listener[1]);
    global(g_record.listener_data, g_record.registry, g_record.bound.at(0), "wl_output", 1);
    remove(g_record.listener_data, g_record.registry, 4242);
    remove(g_record.listener_data, g_record.registry, g_record.bound.at(0));
  };
  active.stop = [](ServiceContext&) { return true; };
  ASSERT_TRUE(control.Init(key_.Value(), false));
  RecordCalls();
  control.AddService(&idle);
  control.AddService(&active);
  control.Run(10);
  EXPECT_TRUE(control.Deinit());

  EXPECT_THAT(events, ElementsAre("1 1024x640 3"));
  EXPECT_EQ(g_record.bound.size(), 1U);
  EXPECT_EQ(log_.Count("Warning: Tools Service: output already initialized"), 1);
  EXPECT_TRUE(log_.Contains("Tools Service: WlRegistryListener_global_remove(name=4242)"));
  EXPECT_THAT(g_record.released, ElementsAre("output", "registry", "queue", "wrapper", "display"));
}

}  // namespace
}  // namespace qel::test
