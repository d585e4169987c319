// The BAMF matcher: the library and its daemon as they are installed, and their absence.
#include <gmock/gmock.h>  // comes first: it cannot stand the macros of the X headers

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "test_desktop.h"

namespace qel {
namespace {

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(BamfTest, DoesWithoutAnUnusableLibrary) {
  const test::TempDir dir;
  dir.Write("libbamf3.so.2", "");
  test::ChildProcess program({.arguments = {BAMF_PROGRAM, "1", dir.Path().string(), "1"},
                              .environment = {{"LD_LIBRARY_PATH", dir.Path().string()}}});
  const auto status = program.Wait();
  EXPECT_TRUE(status && status->exit_code == 0);
  EXPECT_THAT(ReadFile(dir.Path() / "corvessan.log"), testing::HasSubstr("/ Warning: Failed to load libbamf\n"));
}

TEST(BamfTest, NamesTheApplicationOfAWindow) {
  constexpr const char* kDaemon = "/usr/libexec/bamf/bamfdaemon";
  if (!std::filesystem::exists(kDaemon)) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "bamfdaemon is not installed";
    GTEST_SKIP() << "NOT TESTED: bamfdaemon is not installed";
  }
  test::TestDesktop desktop;
  const test::TempDir dir;
  dir.Write("applications/qel-bamf-probe.desktop",
            "[Desktop Entry]\nType=Application\nName=Probe\nExec=xterm -class QelProbe\nStartupWMClass=QelProbe\n");
  // A session with a window manager, for the daemon looks at managed windows alone.
  test::ChildProcess session(
      {.arguments = {"dbus-run-session", "--", "sh", "-ec",
                     "metacity --no-composite & manager=$!; xterm -class QelProbe -e sleep 60 & terminal=$!; "
                     "until w=$(xdotool search --onlyvisible --class QelProbe); do sleep 0.1; done; "
                     "\"$PROGRAM\" $w \"$HOME\" 400 >\"$HOME/output\"; kill $manager $terminal"},
       .environment = {{"HOME", dir.Path().string()},
                       {"XDG_DATA_DIRS", dir.Path().string() + ":/usr/share"},
                       {"DISPLAY", desktop.Name()},
                       {"ASAN_OPTIONS", "detect_leaks=0"},  // the libraries keep what they allocate
                       {"PROGRAM", BAMF_PROGRAM}}});
  const auto status = session.Wait(std::chrono::seconds(60));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->exit_code, 0);
  EXPECT_EQ(ReadFile(dir.Path() / "output"), "qel-bamf-probe\n");
}

}  // namespace
}  // namespace qel
