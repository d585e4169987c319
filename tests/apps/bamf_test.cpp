// The BAMF matcher: the library and its daemon as they are installed, and their absence.
#include <gmock/gmock.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/bamf.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"
#include "test_desktop.h"

namespace qel {
namespace {

using testing::ElementsAre;

TEST(BamfTest, AbsentWhileNotLoaded) {
  const test::LogCapture log;
  EXPECT_EQ(BamfDesktopName(1), "");
  BamfUnload();
  EXPECT_THAT(log.Texts(), ElementsAre());
}

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// An empty file cannot be opened as a library, and a library of another kind lacks the functions.
TEST(BamfTest, DoesWithoutAnUnusableLibrary) {
  const test::TempDir dir;
  const auto run = [&](const std::string& library, const std::string& expected_line) {
    std::filesystem::remove(dir.Path() / "libbamf3.so.2");
    std::filesystem::copy_file(library, dir.Path() / "libbamf3.so.2");
    test::ChildProcess program({.arguments = {BAMF_PROGRAM, "1", dir.Path().string(), "1"},
                                .environment = {{"LD_LIBRARY_PATH", dir.Path().string()}}});
    const auto status = program.Wait();
    EXPECT_TRUE(status && status->exit_code == 0);
    EXPECT_THAT(ReadFile(dir.Path() / "corvessan.log"), testing::HasSubstr(expected_line));
  };
  run(dir.Write("empty", ""), "/ Warning: Failed to load libbamf\n");
  Dl_info other{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(XOpenDisplay), &other), 0);
  run(other.dli_fname, "/ Error: Failed to load symbol 'bamf_matcher_get_default': ");
}

TEST(BamfTest, NamesTheApplicationOfAWindow) {
  constexpr const char* kDaemon = "/usr/libexec/bamf/bamfdaemon";
  if (!std::filesystem::exists(kDaemon)) {
    ASSERT_EQ(std::getenv("CI"), nullptr) << "bamfdaemon is not installed";
    GTEST_SKIP() << "NOT TESTED: bamfdaemon is not installed";
  }
  test::TestDesktop desktop;
  const test::TempDir dir;
  const std::string output = dir.Write("output", "").string();
  const std::string data_dirs = dir.Path().string();
  dir.Write("applications/qel-bamf-probe.desktop",
            "[Desktop Entry]\nType=Application\nName=Probe\nExec=xterm -class QelProbe\nStartupWMClass=QelProbe\n");
  // A session with a window manager, for the daemon looks at managed windows alone.
  test::ChildProcess session(
      {.arguments = {"dbus-run-session", "--", "sh", "-ec",
                     "metacity --no-composite & manager=$!; xterm -class QelProbe -e sleep 60 & terminal=$!; "
                     "until w=$(xdotool search --onlyvisible --class QelProbe); do sleep 0.1; done; "
                     "\"$PROGRAM\" $w \"$HOME\" 400 >\"$HOME/output\"; kill $manager $terminal"},
       .environment = {{"HOME", dir.Path().string()},
                       {"XDG_DATA_DIRS", data_dirs + ":/usr/share"},
                       {"DISPLAY", desktop.Name()},
                       {"ASAN_OPTIONS", "detect_leaks=0"},  // the libraries keep what they allocate
                       {"PROGRAM", BAMF_PROGRAM}}});
  const auto status = session.Wait(std::chrono::seconds(60));
  ASSERT_TRUE(status);
  EXPECT_EQ(status->exit_code, 0);
  EXPECT_EQ(ReadFile(output), "qel-bamf-probe\n");
}

}  // namespace
}  // namespace qel
