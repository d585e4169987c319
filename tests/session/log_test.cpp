// The agent's log when its file or its directory is not as it should be.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "session/session.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

namespace fs = std::filesystem;

const fs::path kLogFile = "/var/log/corvessan.log";

mode_t ModeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 0777;
}

// An umask that takes every right from others, for the programs started meanwhile.
class StrictUmask {
 public:
  ~StrictUmask() { umask(earlier_); }

 private:
  mode_t earlier_ = umask(077);
};

// Gives this user another home, by a user list of its own; the mount is this test program's.
class OtherHome {
 public:
  OtherHome() {
    const fs::path users = directory_.Write("passwd", "me:x:" + std::to_string(geteuid()) + ":" +
                                                          std::to_string(getegid()) + "::" + Path().string() + ":\n");
    EXPECT_EQ(mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
  }
  ~OtherHome() { umount2("/etc/passwd", MNT_DETACH); }
  OtherHome(const OtherHome&) = delete;
  OtherHome& operator=(const OtherHome&) = delete;

  const fs::path& Path() const { return directory_.Path(); }

 private:
  TempDir directory_;
};

void MakeLogDirectory(unsigned long writable_or_not) {
  EXPECT_EQ(mount(nullptr, "/var/log", nullptr, MS_REMOUNT | MS_BIND | writable_or_not, nullptr), 0);
}

// Makes the agent write lines until the time is over.
void KeepLogging(Session& session, std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  while (std::chrono::steady_clock::now() < end) {
    session.Settle();
  }
}

TEST(SessionLogTest, ADeletedFileIsMadeAnewForEveryone) {
  Session session;
  const StrictUmask umask;
  session.StartServingAgent();
  EXPECT_EQ(ModeOf(kLogFile), 0666u);
  fs::remove(kLogFile);
  EXPECT_TRUE(WaitUntil(
      [&] {
        session.Settle();
        return fs::exists(kLogFile);
      },
      kSoon));
  EXPECT_EQ(ModeOf(kLogFile), 0666u);
  session.StopAgent();
  EXPECT_TRUE(LogContains("closed"));
}

TEST(SessionLogTest, AReadOnlyDirectoryIsLeftForTheHomeOnce) {
  Session session;
  const OtherHome home;
  const fs::path fallback = home.Path() / ".corvessan";
  MakeLogDirectory(MS_RDONLY);
  session.StartServingAgent();
  MakeLogDirectory(0);
  session.Settle();
  EXPECT_FALSE(fs::exists(kLogFile)) << "there is no way back";
  EXPECT_EQ(ModeOf(fallback), 0755u);
  EXPECT_EQ(ModeOf(fallback / "corvessan.log"), 0666u);
  std::ifstream file(fallback / "corvessan.log");
  std::string first;
  std::getline(file, first);
  EXPECT_NE(first.find("/ Start Corvessan tandrel tool."), std::string::npos) << first;

  fs::remove_all(fallback);
  KeepLogging(session, std::chrono::milliseconds(2100));  // two looks at the file
  session.StopAgent();
  EXPECT_FALSE(fs::exists(fallback)) << "the switch is not made twice";
  EXPECT_FALSE(fs::exists(kLogFile));
}

}  // namespace
}  // namespace qel::test
