// The BAMF matcher, with the installed library and daemon, and without them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "support/session_bus.h"
#include "support/x_server.h"

namespace qel::test {
namespace {

TEST(BamfTest, WorksWithAnUnusableLibrary) {
  const TempDir dir;
  dir.Write("libbamf3.so.2", "");
  EXPECT_EQ(RunOnSessionBus(dir, BAMF_PROGRAM " 1; grep -c '/ Warning: Failed to load libbamf$' corvessan.log",
                            {{"LD_LIBRARY_PATH", dir.Path()}}),
            "\n1\n");
}

TEST(BamfTest, NamesTheApplicationOfAWindow) {
  if (!std::filesystem::exists("/usr/libexec/bamf/bamfdaemon")) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "bamfdaemon is not installed";
    GTEST_SKIP() << "NOT TESTED: bamfdaemon is not installed";
  }
  const XServer server;
  const TempDir dir;
  dir.Write("applications/qel-bamf-probe.desktop",
            "[Desktop Entry]\nType=Application\nName=Probe\nExec=xterm -class QelProbe\nStartupWMClass=QelProbe\n");
  // The daemon sees only managed windows, so this needs a window manager.
  EXPECT_EQ(RunOnSessionBus(dir,
                            "metacity --no-composite & manager=$!; xterm -class QelProbe -e sleep 60 & terminal=$!; "
                            "until w=$(xdotool search --onlyvisible --class QelProbe); do sleep 0.1; done; "
                            "until " BAMF_PROGRAM " $w | grep .; do sleep 0.1; done; kill $manager $terminal",
                            {{"XDG_DATA_DIRS", dir.Path().string() + ":/usr/share"}, {"DISPLAY", server.Display()}}),
            "qel-bamf-probe\n");
}

}  // namespace
}  // namespace qel::test
