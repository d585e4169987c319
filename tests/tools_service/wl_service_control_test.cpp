// The Wayland control on a real compositor. Entries of the binding's table are replaced where a call has to fail, and
// recorded where the order of releases matters.
#include "tools_service/wl_service_control.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdlib>
#include <optional>
#include <thread>

#include "recording_service.h"
#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "tools_service/tools_service.h"
#include "tools_service/wayland_api.h"

namespace qel::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Text = std::optional<std::string>;

class WlServiceControlTest : public ::testing::Test {
 protected:
  // One compositor for all tests, with one output of 640x480 and no screen.
  static void SetUpTestSuite() {
    directory_ = std::make_unique<TempDir>();
    path_ = directory_->Path();
    const std::string weston = "XDG_RUNTIME_DIR=" + path_ + " exec weston --backend=headless-backend.so --no-config " +
                               "--socket=wayland-2 --width=640 --height=480 >" + path_ + "/weston.out 2>&1";
    compositor_ = std::make_unique<ChildProcess>(ChildOptions{.arguments = {"sh", "-c", weston}});
    ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(path_ + "/wayland-2"); }));
  }
  static void TearDownTestSuite() {
    compositor_.reset();
    directory_.reset();
  }

  static inline std::unique_ptr<TempDir> directory_;
  static inline std::string path_;
  static inline std::unique_ptr<ChildProcess> compositor_;
  ScopedEnvironment environment_{{{"XDG_RUNTIME_DIR", path_}, {"WAYLAND_DISPLAY", "wayland-2"}, {"XDG_VTNR", "2"}}};
  SemaphoreKey key_;
};

TEST_F(WlServiceControlTest, TerminalOfTheSession) {
  const struct {
    Text vtnr, console, tty0;
    std::string terminal;
    bool active;
  } rows[] = {
      {"0", "tty0\n", "tty0\n", "tty0", true},
      {"63", "tty0\n", "tty63\n", "tty63", true},
      {"63", "tty6\n", {}, "tty63", false},
      {"64", "tty64\n", {}, "", false},
      {"-1", "tty1\n", {}, "", false},
      {"4294967297", "tty1\n", {}, "", false},
      {"text", "tty0\n", "tty1\n", "tty0", false},
      {{}, "tty0 ttyS0\n", "tty12\n", "tty12", true},
      {{}, "ttyS10 tty0\n", "tty4\n", "ttyS1", true},
      {{}, "console\n", {}, "", false},
      {{}, {}, "tty4\n", "", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.vtnr.value_or("unset") + ", " + row.console.value_or("no file"));
    const LogCapture log;
    const TempDir root;
    const ScopedEnvironment environment({{"XDG_VTNR", row.vtnr}, {"WAYLAND_DISPLAY", {}}});
    row.console ? root.Write("console/active", *row.console) : "";
    row.tty0 ? root.Write("tty0/active", *row.tty0) : "";
    QelWlServiceControl control(root.Path());
    ASSERT_TRUE(control.Init(key_.Value(), false));
    EXPECT_EQ(control.IsConsoleActive(), row.active);
    EXPECT_TRUE(control.Deinit());
    EXPECT_EQ(log.Count("Warning: Tools Service: no XDG_VTNR environment variable found, will use current"), !row.vtnr);
    EXPECT_EQ(log.Count("Tools Service: initialized Wayland service on display 'wayland-0', VT '" + row.terminal + "'"),
              1);
  }
}

TEST_F(WlServiceControlTest, SessionLock) {
  const LogCapture log;
  const std::string name = "/Corvessan.ControlCenter.UserSession.{wayland-2}.lock";
  // What another process gets to hear.
  const auto other_owns = [] {
    const pid_t other = fork();
    if (other == 0) {
      _exit(SessionLock().Acquire("wayland-2") ? 1 : 0);
    }
    int status = -1;
    waitpid(other, &status, 0);
    return WEXITSTATUS(status) == 1;
  };
  {
    SessionLock lock;
    for (const Text& directory : {Text(), Text("/nowhere")}) {
      const ScopedEnvironment environment({{"XDG_RUNTIME_DIR", directory}});
      EXPECT_FALSE(lock.Acquire("wayland-2"));
    }
    EXPECT_TRUE(lock.Acquire("wayland-2") && lock.Acquire("wayland-2"));
    EXPECT_FALSE(other_owns());
  }
  EXPECT_TRUE(other_owns());
  EXPECT_TRUE(std::filesystem::exists(path_ + name));
  const std::string failed = "Error: Tools Service: can't acquire user session lock";
  const std::string locked = "Tools Service: user session locked '" + path_ + name + "'";
  EXPECT_THAT(log.Texts(),
              ElementsAre("Warning: Tools Service: XDG_RUNTIME_DIR not set in the environment", failed,
                          "Warning: Tools Service: can't open lock file '/nowhere" + name +
                              "' (error=No such file or directory)",
                          failed, locked, "Warning: Tools Service: user session lock file already created",
                          "Error: Tools Service: can't set file lock. Resource temporarily unavailable (errno=11)", "",
                          failed, locked));
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
  EXPECT_FALSE(ToolsServiceInit(key_.Value(), kConnectionWayland, false));
  EXPECT_EQ(log.Count("Warning: Wayland API unsupported"), 1);
  WaylandApiDeinit();
  EXPECT_TRUE(ToolsServiceInit(key_.Value(), kConnectionWayland, false));
  EXPECT_TRUE(ToolsServiceDeinit());
}

// What the replaced entries of the binding's table saw, and what they are to answer.
struct Record {
  QelWlApi real = {};  // the entries as the binding filled them
  wl_proxy* registry = nullptr;
  QelWlApi::Listener of_registry = nullptr;
  QelWlApi::Listener of_output = nullptr;
  int round_trips = 0;
  std::vector<std::string> released = {};
  int registry_result = 0;
  int output_result = 0;
  int failing_round_trip = 0;
};
Record g_record;

void RecordCalls(QelWlApi& table) {
  g_record = {.real = table};
  table.proxy_add_listener = [](wl_proxy* proxy, QelWlApi::Listener listener, void* data) {
    const bool first = g_record.registry == nullptr;
    g_record.registry = first ? proxy : g_record.registry;
    (first ? g_record.of_registry : g_record.of_output) = listener;
    const int result = first ? g_record.registry_result : g_record.output_result;
    return result != 0 ? result : g_record.real.proxy_add_listener(proxy, listener, data);
  };
  table.display_roundtrip_queue = [](wl_display* display, wl_event_queue* queue) {
    const bool fails = ++g_record.round_trips == g_record.failing_round_trip;
    return fails ? -5 : g_record.real.display_roundtrip_queue(display, queue);
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

// A function of any type that creates nothing.
template <typename Result, typename... Arguments>
Result* Null(Arguments...) {
  return nullptr;
}
template <typename... Arguments>
wl_proxy* NoProxy(Arguments..., ...) {
  return nullptr;
}

// One life of a control with two services, of which the first never becomes active.
struct Life {
  explicit Life(const SemaphoreKey& key, const std::string& tty_root) : control(tty_root) {
    idle.on_init = [](ServiceContext&) { return false; };
    service.on_init = [](ServiceContext& context) { return context.connection_type == kConnectionWayland; };
    service.descriptor.event = [this](ServiceContext&, void* data) {
      const auto& event = *static_cast<WlOutputEvent*>(data);
      journal.Add(std::to_string(event.width) + 'x' + std::to_string(event.height));
    };
    EXPECT_TRUE(control.Init(key.Value(), true));
    RecordCalls(table);
    control.AddService(&idle.descriptor);
    control.AddService(&service.descriptor);
  }
  void Run() {
    control.Run(10);
    EXPECT_TRUE(control.Deinit());
  }

  LogCapture log;
  Journal journal;
  RecordingService idle{"idle", journal};
  RecordingService service{"service", journal};
  QelWlServiceControl control;
  // Not constant: the program merely does not write to it.
  QelWlApi& table = const_cast<QelWlApi&>(WaylandApi());
};

TEST_F(WlServiceControlTest, FailedStepsReleaseWhatExists) {
  directory_->Write("console/active", "tty2");
  const std::vector<std::string> all{"detach", "output", "registry", "queue", "wrapper", "display"};
  const struct {
    void (*sabotage)(QelWlApi& api);
    const char* log;
    int released;  // the last so many of them
    bool served = false;
  } rows[] = {
      {[](QelWlApi& api) { api.display_connect = Null; }, "can't open connection to Wayland!", 0},
      {[](QelWlApi& api) { api.proxy_create_wrapper = Null; }, "Couldn't create Wayland display wrapper!", 1},
      {[](QelWlApi& api) { api.display_create_queue = Null; }, "Couldn't create to Wayland queue!", 2},
      {[](QelWlApi& api) { api.proxy_marshal_constructor = NoProxy; }, "Couldn't create to Wayland display registry!",
       3},
      {[](QelWlApi&) { g_record.registry_result = -7; }, "Couldn't add Wayland registry listener (res=-7)!", 4},
      {[](QelWlApi&) { g_record.failing_round_trip = 1; }, "Couldn't roundtrip Wayland queue (res=-5)!", 4},
      {[](QelWlApi&) { g_record.output_result = -2; }, "addedwith errors", 6, true},
      {[](QelWlApi& api) { api.proxy_marshal_constructor_versioned = NoProxy; },
       "Couldn't add Wayland output listener (res=-1) for wloutput=(nil) !", 4, true},
      {[](QelWlApi&) { g_record.failing_round_trip = 2; },
       "Couldn't roundtrip Wayland queue (res=-5), while handle events", 6, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.log);
    Life life(key_, path_);
    row.sabotage(life.table);
    life.service.on_poll = [&](ServiceContext&) {
      life.journal.Count("service.poll") > 1 ? life.control.Stop() : void();
    };
    life.Run();
    EXPECT_THAT(life.log.Texts(), Contains(HasSubstr(row.log)));
    EXPECT_EQ(life.journal.Count("service.poll") > 0, row.served);
    EXPECT_EQ(life.log.Contains("Warning: Tools Service: can't initialize Wayland worker thread!"), !row.served);
    EXPECT_EQ(g_record.released, std::vector(all.end() - row.released, all.end()));
  }
}

TEST_F(WlServiceControlTest, OutputsConsoleAndCompositorComeAndGo) {
  directory_->Write("console/active", "tty2");
  Life life(key_, path_);
  std::uint32_t name = 0;  // of the output, by the log
  life.service.on_poll = [&](ServiceContext&) {
    using Global = void (*)(void*, wl_proxy*, std::uint32_t, const char*, std::uint32_t);
    using Remove = void (*)(void*, wl_proxy*, std::uint32_t);
    using Mode = void (*)(void*, wl_proxy*, std::uint32_t, std::int32_t, std::int32_t, std::int32_t);
    if (life.journal.Count("service.poll") == 1) {
      for (const std::string& line : life.log.Texts()) {
        std::sscanf(line.c_str(), "Tools Service: output (name=%u", &name);
      }
      reinterpret_cast<Global>(g_record.of_registry[0])(&life.control, g_record.registry, name, "wl_output", 1);
      reinterpret_cast<Remove>(g_record.of_registry[1])(&life.control, g_record.registry, 4242);
      reinterpret_cast<Mode>(g_record.of_output[1])(&life.control, nullptr, 1, 800, 600, 60'000);
    } else if (life.journal.Count("service.poll") == 2) {
      reinterpret_cast<Remove>(g_record.of_registry[1])(&life.control, g_record.registry, name);
    }
  };
  std::jthread runner([&] { life.Run(); });
  EXPECT_TRUE(life.journal.WaitFor("service.poll", 3));
  EXPECT_EQ(life.journal.Count("640x480"), 1);
  EXPECT_EQ(life.journal.Count("800x600"), 1);
  EXPECT_EQ(life.journal.Count("idle.event"), 0) << "it is not active";

  directory_->Write("console/active", "tty1");
  EXPECT_TRUE(life.journal.WaitFor("service.stop"));
  directory_->Write("console/active", "tty2");
  EXPECT_TRUE(life.journal.WaitFor("service.init", 2));

  compositor_->Kill(SIGKILL);
  runner.join();
  EXPECT_EQ(life.journal.Entries().back(), "service.stop");
  EXPECT_THAT(g_record.released, ElementsAre("output", "registry", "queue", "wrapper", "display"));
  for (const char* text :
       {"Warning: Tools Service: output already initialized",
        "Error: Tools Service: Couldn't roundtrip Wayland queue (res=-1), while handle events",
        "Tools Service: user session unlocked", "Tools Service: Wayland service cleanup completed"}) {
    EXPECT_EQ(life.log.Count(text), 1) << text;
  }
}

}  // namespace
}  // namespace qel::test
