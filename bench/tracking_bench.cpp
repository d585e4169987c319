// Window tracking on a real X server, compared with a plain client that makes only the necessary calls and waits for
// each reply. "ratio" is the tracker's time divided by the plain client's; both are measured in turns in the same run.

#include <X11/Xatom.h>
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "test_desktop.h"

namespace qel::test {
namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::duration duration) {
  return std::chrono::duration<double>(duration).count();
}

template <typename Work>
double Time(const Work& work) {
  const Clock::time_point start = Clock::now();
  work();
  return Seconds(Clock::now() - start);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// As long as an object exists, it counts the calls of the agent that wait for a reply of the server.
class RoundTrips {
 public:
  RoundTrips() : table_(x_api) {
    original_ = &table_;
    count_ = 0;
    x_api.XGetWindowProperty = [](auto... arguments) { return ++count_, original_->XGetWindowProperty(arguments...); };
    x_api.XGetWindowAttributes = [](auto... arguments) {
      return ++count_, original_->XGetWindowAttributes(arguments...);
    };
    x_api.XQueryTree = [](auto... arguments) { return ++count_, original_->XQueryTree(arguments...); };
    x_api.XSync = [](auto... arguments) { return ++count_, original_->XSync(arguments...); };
    x_api.XInternAtom = [](auto... arguments) { return ++count_, original_->XInternAtom(arguments...); };
  }
  ~RoundTrips() { x_api = table_; }
  RoundTrips(const RoundTrips&) = delete;
  RoundTrips& operator=(const RoundTrips&) = delete;

  int Count() const { return count_; }

 private:
  static inline const XFunctionTable* original_ = nullptr;
  static inline int count_ = 0;
  const XFunctionTable table_;
};

// Reads the same data as the tracker with plain Xlib calls.
class PlainClient {
 public:
  explicit PlainClient(const TestDesktop& desktop) : display_(desktop.Name()), root_(DefaultRootWindow(Connection())) {
    session_.display = display_;
    InternSessionAtoms(session_);
  }

  Display* Connection() const { return display_; }

  void Enumerate() const {
    Read(root_, session_.atoms.net_client_list, XA_WINDOW);
    for (const Window top : Children(root_)) {
      Window client = top;
      if (!Read(top, session_.atoms.net_wm_window_type, XA_ATOM)) {
        client = Children(top).front();
        Read(client, session_.atoms.net_wm_window_type, XA_ATOM);
        XSelectInput(display_, top, SubstructureNotifyMask | PropertyChangeMask);
      }
      ReadClient(client);
    }
  }

  void HandleEvents() const {
    XSync(display_, False);
    while (XPending(display_) > 0) {
      XEvent event;
      XNextEvent(display_, &event);
      if (event.type == CreateNotify) {
        Read(root_, session_.atoms.net_client_list, XA_WINDOW);
        XSelectInput(display_, event.xcreatewindow.window, SubstructureNotifyMask | PropertyChangeMask);
      } else if (event.type == MapNotify) {
        Read(root_, session_.atoms.net_client_list, XA_WINDOW);
        Children(event.xmap.window);
        Read(event.xmap.window, session_.atoms.net_wm_window_type, XA_ATOM);
        ReadClient(event.xmap.window);
        XSelectInput(display_, event.xmap.window, SubstructureNotifyMask | PropertyChangeMask);
      }
    }
  }

 private:
  // Size and map state are read with two calls.
  void ReadClient(Window client) const {
    XWindowAttributes attributes;
    XGetWindowAttributes(display_, client, &attributes);
    XGetWindowAttributes(display_, client, &attributes);
    Read(client, session_.atoms.net_wm_pid, XA_CARDINAL);
    Read(client, session_.atoms.wm_class, XA_STRING);
    Read(client, session_.atoms.net_wm_name, session_.atoms.utf8_string);
    Read(client, session_.atoms.wm_client_leader, XA_WINDOW);
    Read(client, session_.atoms.net_wm_icon, XA_CARDINAL);
  }

  bool Read(Window window, Atom property, Atom type) const {
    Atom actual = None;
    int format = 0;
    unsigned long count = 0;
    unsigned long left = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(display_, window, property, 0, UINT32_MAX, False, type, &actual, &format, &count, &left, &data);
    if (data != nullptr) {
      XFree(data);
    }
    return actual == type;
  }

  std::vector<Window> Children(Window window) const {
    Window root = None;
    Window parent = None;
    Window* children = nullptr;
    unsigned int count = 0;
    XQueryTree(display_, window, &root, &parent, &children, &count);
    std::vector<Window> copy(children, children + count);
    if (children != nullptr) {
      XFree(children);
    }
    return copy;
  }

  XConnection display_;
  Window root_;
  Session session_;
};

// Processes to which the windows belong.
class Processes {
 public:
  explicit Processes(int count) {
    for (int i = 0; i < count; ++i) {
      const pid_t pid = fork();
      if (pid == 0) {
        pause();
        _exit(0);
      }
      pids_.push_back(pid);
    }
  }
  ~Processes() {
    for (const pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;

  pid_t Of(int window) const { return pids_[static_cast<std::size_t>(window) % pids_.size()]; }

 private:
  std::vector<pid_t> pids_;
};

Window MakeTitled(TestDesktop& desktop, const WindowOptions& options) {
  WindowOptions unmapped = options;
  unmapped.mapped = false;
  const Window window = desktop.Make(unmapped);
  desktop.SetTitle(window, "A window");
  std::vector<long> icon(2 + 48 * 48, 0x7F112233);
  icon[0] = icon[1] = 48;
  desktop.Set(window, "_NET_WM_ICON", "CARDINAL", 32, icon);
  if (options.mapped) {
    XMapWindow(desktop.Connection(), window);
  }
  return window;
}

std::vector<long> MakeMany(TestDesktop& desktop, int count, bool framed, const Processes& processes) {
  std::vector<long> clients;
  for (int i = 0; i < count; ++i) {
    const Window parent = framed ? desktop.Make(kFrame) : None;
    const WindowOptions options{.parent = parent, .pid = processes.Of(i), .listed = false};
    clients.push_back(static_cast<long>(MakeTitled(desktop, options)));
  }
  desktop.SetClientList(clients);
  desktop.Sync();
  return clients;
}

void EnumerateWindows(benchmark::State& state) {
  const auto windows = static_cast<int>(state.range(0));
  const Processes processes(std::max(1, windows / 10));
  TestDesktop desktop;
  MakeMany(desktop, windows, state.range(1) != 0, processes);
  TestAgent agent(desktop);
  agent.describe_messages = false;
  const PlainClient plain(desktop);
  std::vector<double> tracker_times;
  std::vector<double> plain_times;
  for (auto _ : state) {
    agent.registry.ClearRegistry();
    plain_times.push_back(Time([&] { plain.Enumerate(); }));
    tracker_times.push_back(Time([&] { agent.Enumerate(); }));
    state.SetIterationTime(tracker_times.back());
    if (agent.TakeMessages().size() != static_cast<std::size_t>(windows) + 1) {
      state.SkipWithError("not every window was reported");
    }
  }
  agent.registry.ClearRegistry();
  const RoundTrips round_trips;
  agent.Enumerate();
  state.counters["round_trips_per_window"] = static_cast<double>(round_trips.Count()) / windows;
  state.counters["plain_us_per_window"] = 1e6 * Median(plain_times) / windows;
  state.counters["us_per_window"] = 1e6 * Median(tracker_times) / windows;
  state.counters["ratio"] = Median(tracker_times) / Median(plain_times);
}
BENCHMARK(EnumerateWindows)
    ->ArgNames({"windows", "framed"})
    ->ArgsProduct({{10, 100, 1000, 5000}, {0, 1}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void OpenAndClose(benchmark::State& state) {
  const auto others = static_cast<int>(state.range(0));
  const Processes processes(std::max(1, others / 10));
  TestDesktop desktop;
  std::vector<long> clients = MakeMany(desktop, others, false, processes);
  TestAgent agent(desktop);
  agent.describe_messages = false;
  agent.Enumerate();
  agent.TakeMessages();
  const PlainClient plain(desktop);
  XSelectInput(plain.Connection(), DefaultRootWindow(plain.Connection()), SubstructureNotifyMask);
  XSync(plain.Connection(), False);
  std::vector<double> tracker_times;
  std::vector<double> plain_times;
  std::size_t messages = 0;
  const auto handle = [&] {
    desktop.Sync();
    const double plain_time = Time([&] { plain.HandleEvents(); });
    const double tracker_time = Time([&] { agent.HandleEvents(); });
    messages += agent.TakeMessages().size();
    return std::pair{tracker_time, plain_time};
  };
  for (auto _ : state) {
    const Window window = MakeTitled(desktop, {.pid = processes.Of(others / 2), .listed = false});
    clients.push_back(static_cast<long>(window));
    desktop.SetClientList(clients);
    const auto [opened, plain_opened] = handle();
    clients.pop_back();
    XDestroyWindow(desktop.Connection(), window);
    desktop.SetClientList(clients);
    const auto [closed, plain_closed] = handle();
    agent.Tracker().BeginPeriod();  // otherwise the root window would become noisy: its client list changes often
    tracker_times.push_back(opened + closed);
    plain_times.push_back(plain_opened + plain_closed);
    state.SetIterationTime(tracker_times.back());
  }
  if (messages != 2 * static_cast<std::size_t>(state.iterations())) {
    state.SkipWithError("not every window was reported and taken back");
  }
  state.counters["plain_us"] = 1e6 * Median(plain_times);
  state.counters["us"] = 1e6 * Median(tracker_times);
  state.counters["ratio"] = Median(tracker_times) / Median(plain_times);
}
BENCHMARK(OpenAndClose)->ArgName("others")->Arg(10)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace qel::test

BENCHMARK_MAIN();
