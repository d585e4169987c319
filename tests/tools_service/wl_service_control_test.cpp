// The Wayland control on real compositors. The session's one runs nested in another one without a screen: its outputs
// are the outer one's windows, so they can come, change and go. Entries of the binding's table are replaced where a
// call has to fail, and recorded where the order of releases matters.
#include "tools_service/wl_service_control.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdarg>
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

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// Runs a command line whose last command starts with "exec", so that the process is that command's.
std::unique_ptr<ChildProcess> Shell(const std::string& command) {
  return std::make_unique<ChildProcess>(ChildOptions{.arguments = {"sh", "-c", command}});
}

// Runs sway in a directory, with settings for the library that it draws with; its control socket gets the name.
std::unique_ptr<ChildProcess> StartSway(const std::string& directory, const std::string& name,
                                        const std::string& settings) {
  std::string command = "cd " + directory + " && echo xwayland disable >config && ";
  std::string user;
  if (geteuid() == 0) {
    // It refuses to run as root. The change of user would undo that the kernel ends it with this process.
    command += "chown 65534 . && ";
    user = "setpriv --pdeathsig=keep --reuid=65534 --regid=65534 --clear-groups ";
  }
  auto sway =
      Shell(command + "XDG_RUNTIME_DIR=$PWD SWAYSOCK=$PWD/" + name + " WLR_RENDERER=pixman WLR_LIBINPUT_NO_DEVICES=1 " +
            settings + " exec " + user + "sway --config config >" + name + ".out 2>&1");
  EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(directory + '/' + name); }));
  return sway;
}

class WlServiceControlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = std::make_unique<TempDir>();
    path_ = directory_->Path();
    outer_ = StartSway(path_, "outer", "WLR_BACKENDS=headless");
    inner_ = StartSway(path_, "inner", "WLR_BACKENDS=wayland WAYLAND_DISPLAY=wayland-1");
  }
  static void TearDownTestSuite() {
    inner_.reset();
    outer_.reset();
    directory_.reset();
  }
  WlServiceControlTest() { MoveConsoleTo("tty2"); }

  static void MoveConsoleTo(const char* terminal) { directory_->Write("console/active", terminal); }
  static void Command(const std::string& compositor, const std::string& command) {
    const auto status = Shell("exec swaymsg --quiet --socket " + path_ + '/' + compositor + " -- " + command)->Wait();
    EXPECT_TRUE(status && status->exit_code == 0) << command;
  }

  static inline std::unique_ptr<TempDir> directory_;
  static inline std::string path_;
  static inline std::unique_ptr<ChildProcess> outer_;
  static inline std::unique_ptr<ChildProcess> inner_;
  ScopedEnvironment environment_{{{"XDG_RUNTIME_DIR", path_}, {"WAYLAND_DISPLAY", "wayland-2"}, {"XDG_VTNR", "2"}}};
  SemaphoreKey key_;
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
  for (const Row& row : rows) {
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
  const auto other_owns = [&] {
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
    for (const std::optional<std::string>& directory : {std::optional<std::string>(), {"/nowhere"}}) {
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

// One life of a control with two services, of which the first never becomes active.
struct Life {
  Life(const std::string& tty_root, const SemaphoreKey& key) : control(tty_root) {
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
  std::string Log() const {
    std::string text;
    for (const std::string& line : log.Texts()) {
      text += line + '\n';
    }
    return text;
  }
  bool Logs(const std::string& text) const {
    return WaitUntil([&] { return Log().find(text) != std::string::npos; });
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
    Life life(path_, key_);
    row.sabotage(life.table);
    life.service.on_poll = [&](ServiceContext&) {
      life.journal.Count("service.poll") > 1 ? life.control.Stop() : void();
    };
    life.Run();
    EXPECT_THAT(life.Log(), HasSubstr(row.log));
    EXPECT_EQ(life.journal.Count("service.poll") > 0, row.served);
    EXPECT_EQ(life.log.Contains("Warning: Tools Service: can't initialize Wayland worker thread!"), !row.served);
    EXPECT_EQ(g_record.released, row.released);
  }
}

TEST_F(WlServiceControlTest, GlobalsAreBoundOnceAndUnknownOnesIgnored) {
  Life life(path_, key_);
  life.service.on_poll = [&](ServiceContext&) {
    using Global = void (*)(void*, wl_proxy*, std::uint32_t, const char*, std::uint32_t);
    using Remove = void (*)(void*, wl_proxy*, std::uint32_t);
    const auto global = reinterpret_cast<Global>(g_record.listener[0]);
    const auto remove = reinterpret_cast<Remove>(g_record.listener[1]);
    global(&life.control, g_record.registry, g_record.output_name, "wl_output", 1);
    remove(&life.control, g_record.registry, 4242);
    remove(&life.control, g_record.registry, g_record.output_name);
    life.control.Stop();
  };
  life.Run();
  EXPECT_EQ(g_record.bound, 1);
  EXPECT_TRUE(life.log.Contains("Warning: Tools Service: output already initialized"));
  EXPECT_THAT(g_record.released, ElementsAre("output", "registry", "queue", "wrapper", "display"));
}

// Another compositor, which has one output without a screen and dies.
TEST_F(WlServiceControlTest, ServesWestonUntilItDies) {
  const ScopedEnvironment environment({{"WAYLAND_DISPLAY", std::optional<std::string>("wayland-weston")}});
  const auto weston = Shell(
      "exec weston --backend=headless-backend.so --socket=wayland-weston --width=640 --height=480 "
      "--no-config >" +
      path_ + "/weston.out 2>&1");
  ASSERT_TRUE(WaitUntil([] { return std::filesystem::exists(path_ + "/wayland-weston"); }));
  {
    static Life frozen(path_, key_);  // nobody waits for its worker's end
    std::jthread runner([] { frozen.control.Run(10); });
    EXPECT_TRUE(frozen.journal.WaitFor("640x480"));
    weston->Kill(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // into the next question to it
    const auto asked = std::chrono::steady_clock::now();
    frozen.control.Stop();
    runner.join();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(4));
    EXPECT_TRUE(frozen.control.IsWorkerStuck());
    weston->Kill(SIGCONT);
    EXPECT_TRUE(frozen.Logs("worker thread stopped"));
    EXPECT_TRUE(frozen.control.Deinit());
  }
  Life life(path_, key_);
  std::jthread runner([&] { life.Run(); });
  EXPECT_TRUE(life.journal.WaitFor("640x480"));
  weston->Kill(SIGKILL);
  runner.join();
  EXPECT_EQ(life.journal.Entries().back(), "service.stop");
  EXPECT_TRUE(life.log.Contains("Tools Service: Wayland service cleanup completed"));
}

// The last test: it ends the session's compositor.
TEST_F(WlServiceControlTest, OutputsConsoleAndCompositorComeAndGo) {
  Life life(path_, key_);
  std::jthread runner([&] { life.Run(); });
  ASSERT_TRUE(life.journal.WaitFor("service.init"));
  Command("inner", "create_output");
  Command("inner", "output WL-2 mode --custom 800x600@60Hz");
  EXPECT_TRUE(life.journal.WaitFor("800x600"));
  Command("outer", "kill");  // closes one of the windows
  EXPECT_TRUE(life.Logs(") removed"));
  EXPECT_EQ(life.journal.Count("idle.event"), 0) << "it is not active";

  MoveConsoleTo("tty1");
  EXPECT_TRUE(life.journal.WaitFor("service.stop"));
  MoveConsoleTo("tty2");
  EXPECT_TRUE(life.journal.WaitFor("service.init", 2));

  inner_->Kill(SIGKILL);
  runner.join();
  EXPECT_EQ(life.journal.Entries().back(), "service.stop");
  EXPECT_THAT(life.Log(), HasSubstr("Couldn't roundtrip Wayland queue (res=-1), while handle events"));
  EXPECT_TRUE(life.log.Contains("Tools Service: Wayland service cleanup completed"));
  EXPECT_TRUE(life.log.Contains("Tools Service: user session unlocked"));
}

}  // namespace
}  // namespace qel::test
