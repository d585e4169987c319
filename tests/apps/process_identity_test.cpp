// Processes are recognized by their executables and command lines.
#include "apps/process_identity.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

TEST(ProcessIdentity, IgnoresTheDesktopsOwnProcesses) {
  constexpr const char* kPlasma = "kdeinit4: plasma-desktop [kdeinit]";
  const struct {
    const char *executable, *first_argument;
    bool ignored, window_manager;
  } rows[] = {
      {"kwin", "sleep", true, true},
      {"kwin_x11", "sleep", false, false},
      {"plasmashell", "plasmashell", true, false},
      {"kdeinit4", kPlasma, true, false},
      {"kdeinit4", "kdeinit4: plasma-desktop [kdeinit]x", false, false},
      {"other", kPlasma, false, false},
  };
  bool window_manager = true;
  for (const auto& row : rows) {
    const TempDir directory;
    const std::string path = directory.Path() / row.executable;
    std::filesystem::copy_file("/bin/sleep", path);
    ChildProcess process({.arguments = {"bash", "-c", "exec -a \"$0\" \"$1\" 1000", row.first_argument, path}});
    ASSERT_TRUE(WaitUntil([&] { return ExecutablePath(process.Pid()) == path; }));
    EXPECT_TRUE(WaitUntil([&] { return IsIgnoredProcess(process.Pid(), window_manager) == row.ignored; }))
        << path << " as " << row.first_argument;
    EXPECT_EQ(window_manager, row.window_manager) << path;

    // A zombie has a name, but no longer an executable.
    process.Kill(9);
    EXPECT_TRUE(WaitUntil([&] { return ExecutablePath(process.Pid()) == row.executable; }));
  }
  EXPECT_EQ(ExecutablePath(-1), "");
  EXPECT_FALSE(IsIgnoredProcess(-1, window_manager));
}

}  // namespace
}  // namespace qel::test
