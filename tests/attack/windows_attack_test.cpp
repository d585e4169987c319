// Programs whose windows do what no sensible program does.

#include <climits>

#include "attack/attack.h"

namespace qel::test {
namespace {

class WindowsAttack : public AttackTest {
 protected:
  void SetUp() override { Start(); }

  void Step(XClient& client, std::vector<Window>& windows);
  void Spoil(Window window);

  // Of a process that may show windows, of others, of nobody, negative.
  long AnyPid() {
    const long pids[] = {pid_, pid_, 1, 0, -1, INT_MIN, INT_MAX, 1 << 22, getpid()};
    return pids[Random(std::size(pids))];
  }

  const std::int32_t pid_ = session_.NewProcess().Pid();
};

void WindowsAttack::Step(XClient& client, std::vector<Window>& windows) {
  if (windows.empty() || (Random(4) == 0 && windows.size() < 200)) {
    constexpr unsigned kSides[] = {1, 2, 3, 50, 30'000};
    windows.push_back(client.Open({.pid = static_cast<std::int32_t>(AnyPid()),
                                   .title = RandomBytes(Random(100)),
                                   .width = kSides[Random(5)],
                                   .height = kSides[Random(5)],
                                   .parent = windows.empty() || Random(2) == 0 ? 0 : windows[Random(windows.size())],
                                   .is_managed = Random(3) != 0}));
  }
  const Window window = windows[Random(windows.size())];
  const Window other = windows[Random(windows.size())];
  const char* const types[] = {"_NET_WM_WINDOW_TYPE_NORMAL", "_NET_WM_WINDOW_TYPE_DIALOG", "_NET_WM_WINDOW_TYPE_NONE"};
  switch (Random(8)) {
    case 0:
      client.Map(window);
      break;
    case 1:
      client.Unmap(window);
      break;
    case 2:
      client.Reparent(window, Random(2) == 0 ? other : client.Root());
      break;
    case 3:
      client.Close(window);  // and all in it; their ids stay among those that are attacked
      std::erase(windows, window);
      break;
    case 4:
      client.Change(window, "_NET_WM_PID", "CARDINAL", 32, {AnyPid()});
      break;
    case 5:
      client.Change(window, "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(other)});
      break;
    case 6:
      client.Change(window, "_NET_WM_WINDOW_TYPE", "ATOM", 32, {static_cast<long>(client.Intern(types[Random(3)]))});
      break;
    default:
      client.SetTitle(window, RandomBytes(Random(600)));
      break;
  }
}

TEST_F(WindowsAttack, StormsOfSeveralClients) {
  for (int round = 0; round < Scaled(1); ++round) {
    XClient clients[] = {XClient(session_.Server().Display()), XClient(session_.Server().Display())};
    std::vector<Window> windows[2];
    for (int step = 0; step < 2000; ++step) {
      Step(clients[step % 2], windows[step % 2]);
      if (step % 100 == 0) {
        Claim(windows[0], 20);
      }
    }
  }
}

// Gives each property any type, format, length and content; half of the times its own type and format, so that the
// content is looked at.
void WindowsAttack::Spoil(Window window) {
  constexpr std::tuple<const char*, const char*, int> kProperties[] = {
      {"_NET_WM_NAME", "UTF8_STRING", 8},  {"_NET_WM_ICON", "CARDINAL", 32}, {"_NET_WM_STATE", "ATOM", 32},
      {"_NET_WM_WINDOW_TYPE", "ATOM", 32}, {"WM_CLASS", "STRING", 8},        {"_NET_WM_PID", "CARDINAL", 32},
      {"WM_CLIENT_LEADER", "WINDOW", 32},  {"WM_STATE", "WM_STATE", 32},
  };
  constexpr int kFormats[] = {8, 16, 32};
  for (const auto& [name, type, format] : kProperties) {
    // Each of the shortest lengths is as important as all longer ones; small numbers lead further, as sizes for
    // example.
    std::vector<long> items(Random(2) == 0 ? Random(6) : Random(5000));
    const unsigned largest = Random(2) == 0 ? 64 : UINT_MAX;
    std::ranges::generate(items, [&] { return static_cast<long>(Random(largest)); });
    const auto& other = kProperties[Random(std::size(kProperties))];
    session_.Client().Change(window, name, Random(2) == 0 ? type : std::get<1>(other),
                             Random(2) == 0 ? format : kFormats[Random(3)], items);
  }
}

TEST_F(WindowsAttack, PropertiesOfEveryTypeFormatAndLength) {
  XClient& client = session_.Client();
  const WindowTraits traits{.pid = pid_, .is_managed = false};
  const std::vector<Window> windows = client.OpenMany(std::vector(20, traits));
  for (int i = 0; i < Scaled(10); ++i) {
    Claim(windows);
    for (const Window window : windows) {
      Spoil(window);
      if (Random(2) == 0) {  // else it is refused
        client.Change(window, "_NET_WM_PID", "CARDINAL", 32, {pid_});
        client.Change(window, "_NET_WM_WINDOW_TYPE", "ATOM", 32,
                      {static_cast<long>(client.Intern(traits.type.c_str()))});
      }
    }
    client.Sync();
    std::this_thread::sleep_for(100ms);  // the agent looks at what has come to rest
  }
  client.SetTitle(windows[0], "");
  for (int i = 0; i < (Scaled(1) > 1 ? 4 : 1); ++i) {
    client.AppendToTitle(windows[0], std::string(15 << 20, 'x'));
  }
  const std::uint32_t side = Scaled(1) > 1 ? 1900 : 1000;
  client.SetIcon(windows[0], std::vector<std::uint32_t>(2 + side * side, side));
  Claim(windows);
  ServeBeacon();
  std::ranges::for_each(windows, [&](Window window) { client.Close(window); });
}

TEST_F(WindowsAttack, CirclesDeepAndWideTreesAndEndlessLists) {
  for (int round = 0; round < Scaled(1); ++round) {
    XClient client(session_.Server().Display());
    const auto open = [&](Window parent) {
      return client.Open({.pid = pid_, .type = "", .parent = parent, .is_managed = false});
    };
    std::vector<Window> windows;
    std::ranges::generate_n(std::back_inserter(windows), 20, [&] { return open(0); });
    for (std::size_t i = 0; i < windows.size(); ++i) {
      client.Set(windows[i], "WM_CLIENT_LEADER", "WINDOW", 32, {static_cast<long>(windows[(i + 1) % windows.size()])});
    }
    Claim(windows);
    ServeBeacon();
    for (int depth = 0; depth < 5000; ++depth) {
      windows.push_back(open(windows.back()));
    }
    Claim({windows.end() - 100, windows.end()});  // the innermost
    ServeBeacon();
    windows = {open(0)};
    for (int child = 0; child < 20'000; ++child) {
      client.Create({.type = "", .parent = windows[0]});  // not mapped: the server would take minutes
    }
    Claim(windows);
    ServeBeacon();
    Claim(windows, Scaled(1) > 1 ? 1'000'000 : 200'000);
    std::this_thread::sleep_for(300ms);  // so that the agent begins with them
    ServeBeacon();
  }
}

TEST_F(WindowsAttack, AStopInTheMidstOfEndlessLists) {
  Claim({}, 1'000'000);
  std::this_thread::sleep_for(std::chrono::milliseconds(Random(1000)));
  agent_->Stop();
  agent_.reset();
}

}  // namespace
}  // namespace qel::test
