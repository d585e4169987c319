// Wake-ups and memory of the agent in a session, compared with their limits.

#include <iostream>
#include <optional>

#include "session/crowds.h"
#include "session/process_memory.h"
#include "session/session_test.h"
#include "support/session_bus.h"

namespace qel::test {
namespace {

// The number of times that its threads have waited. Involuntary switches do not count.
long SwitchesOf(pid_t pid) {
  long switches = 0;
  for (const fs::directory_entry& thread : fs::directory_iterator(ProcFolder(pid) / "task")) {
    switches += ReadNumbers(thread.path() / "status")["voluntary_ctxt_switches"];
  }
  return switches;
}

// A menu with as many entries as on a desktop with many programs, and with files of a real length.
void WriteMenu(const TempDir& dir) {
  constexpr int kEntries = 300;
  dir.Write("menus/applications.menu", "<Menu><Name>Applications</Name><AppDir>" +
                                           (dir.Path() / "applications").string() +
                                           "</AppDir><Menu><Name>All</Name><Include><All/></Include></Menu></Menu>");
  for (int i = 0; i < kEntries; ++i) {
    const std::string name = "org.example.program-" + std::to_string(i);
    std::string text = "[Desktop Entry]\nType=Application\nName=Program\nExec=/usr/bin/" + name + " %U\nIcon=" + name +
                       "\nCategories=GTK;GNOME;Utility;\nMimeType=text/plain;image/png;\n";
    for (int language = 0; language < 100; ++language) {
      text += "Comment[l" + std::to_string(language) + "]=What the program is good for, in this language\n";
    }
    dir.Write("applications/" + name + ".desktop", text);
  }
}

double WakeUpsPerSecond(Session& session, pid_t agent) {
  constexpr std::chrono::seconds kTime{20};
  const long before = SwitchesOf(agent);
  const std::uint64_t fetches_before = session.Count(MessageKind::kFetch);
  std::this_thread::sleep_for(kTime);  // the time of the measurement
  const auto fetches = static_cast<long>(session.Count(MessageKind::kFetch) - fetches_before);
  EXPECT_GT(fetches, 0);
  // Each fetch costs one more switch here, because another process answers it instead of a driver.
  const long wake_ups = SwitchesOf(agent) - before - fetches;
  std::cout << wake_ups << " wake-ups, " << fetches << " fetches\n";
  return static_cast<double>(wake_ups) / static_cast<double>(kTime.count());
}

TEST(CostsTest, AnIdleAgentNeedsFewWakeUpsAndLittleMemory) {
  Session session("metacity");
  const SessionBus bus({{"DISPLAY", session.Server().Display()}});
  const TempDir menu;
  WriteMenu(menu);
  // Without GConf, which today's desktops do not install. With its libraries it would take 160 KiB more.
  for (const char* const name : {"libgconf-2.so.4", "libgconf-2.so.0", "libgconf-2.so"}) {
    menu.Write(name, "");
  }
  Agent& agent =
      session.StartServingAgent({}, {{"DBUS_SESSION_BUS_ADDRESS", bus.Address()},
                                     {"GSETTINGS_BACKEND", std::nullopt},
                                     {"LD_LIBRARY_PATH", menu.Path()},
                                     {"XDG_CURRENT_DESKTOP", "GNOME"},
                                     {"XDG_MENU_PREFIX", std::nullopt},
                                     {"XDG_CONFIG_DIRS", menu.Path()},
                                     {"XDG_DATA_DIRS", menu.Path().string() + ":/usr/local/share:/usr/share"}});
  EXPECT_TRUE(LogContains("Applications menu has 300 entries."));
  session.Settle();

  // Other processes can only increase the number of wake-ups, so a measurement over the limit is repeated.
  constexpr double kMost = 3.1;  // per second: two of the worker and one for the fetch
  double wake_ups = WakeUpsPerSecond(session, agent.Pid());
  for (int tries = 1; tries < 3 && wake_ups > kMost; ++tries) {
    wake_ups = WakeUpsPerSecond(session, agent.Pid());
  }
  EXPECT_LE(wake_ups, kMost);
  const Memory memory = MemoryOf(agent.Pid());
  std::cout << memory.dirty_kib << " KiB private, " << memory.proportional_kib << " KiB proportional\n";
  EXPECT_LE(memory.dirty_kib, 1536);
}

// Opens and closes windows. Returns the growth of the agent's private memory since the first part of them.
long GrowthKib(Session& session, Agent& agent, const WindowTraits& traits, std::size_t first, std::size_t more,
               std::size_t at_once) {
  EXPECT_TRUE(ReportAndTakeBack(session, agent, traits, first, at_once));
  const long before = MemoryOf(agent.Pid()).dirty_kib;
  EXPECT_TRUE(ReportAndTakeBack(session, agent, traits, more, at_once));
  const long growth = MemoryOf(agent.Pid()).dirty_kib - before;
  std::cout << before << " KiB private after " << first << " windows, " << growth << " more after " << more
            << " others\n";
  return growth;
}

TEST(CostsTest, MemoryDoesNotGrowWithWindows) {
  Session session("");
  Agent& agent = session.StartServingAgent();
  const IdleProcess process;
  std::vector<std::uint32_t> icon(2 + 16 * 16, 0xFF336699);
  icon[0] = icon[1] = 16;
  EXPECT_LE(GrowthKib(session, agent, {.pid = process.Pid(), .icon = icon}, 1000, 4000, 200), 64);
}

// The agent asks BAMF about windows of an unknown class. The answers must be freed: they would take 10 KiB per window.
// The last answers may still be in memory.
TEST(CostsTest, MemoryDoesNotGrowWithAnswersOfTheMatcher) {
  if (!fs::exists("/usr/libexec/bamf/bamfdaemon")) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "bamfdaemon is not installed";
    GTEST_SKIP() << "NOT TESTED: bamfdaemon is not installed";
  }
  Session session;
  const SessionBus bus({{"DISPLAY", session.Server().Display()}});
  const IdleProcess process;
  const WindowTraits traits{.pid = process.Pid(), .window_class = std::string("unheard-of\0Unheard-of\0", 22)};
  session.Open(traits);
  Agent& agent = session.StartServingAgent({"-r", "50"}, {{"DBUS_SESSION_BUS_ADDRESS", bus.Address()}});
  EXPECT_LE(GrowthKib(session, agent, traits, 100, 200, 25), 256);
  EXPECT_FALSE(LogContains("Warning: bamf takes too long to answer and is not asked any more"));
}

}  // namespace
}  // namespace qel::test
