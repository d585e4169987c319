// The agent's log when its file or its directory is not as it should be. The agent looks at its file once a second.

#include <sys/mount.h>
#include <sys/stat.h>

#include "session/session_test.h"

namespace qel::test {
namespace {

int ModeOf(const fs::path& path) {
  return static_cast<int>(fs::status(path).permissions());
}

class SessionLogTest : public testing::Test {
 protected:
  // Gives this user another home, by a user list of its own; the mount is this test program's.
  SessionLogTest() {
    const fs::path users =
        files_.Write("passwd", "me:x:" + std::to_string(geteuid()) + ":" + std::to_string(getegid()) +
                                   "::" + files_.Path().string() + ":\n");
    EXPECT_EQ(mount(users.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
  }
  ~SessionLogTest() override {
    umask(umask_);
    umount2("/etc/passwd", MNT_DETACH);
  }

  // What stands in the log in the home.
  std::string HomeLog() const {
    std::ifstream file(fallback_ / "corvessan.log");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  // Makes the agent write lines until this is true.
  bool IsTrueOfLog(const std::function<bool()>& condition) {
    return WaitUntil([&] { return session_.Settle(), condition(); }, kSoon);
  }

  Session session_;
  TempDir files_;
  fs::path fallback_ = files_.Path() / ".corvessan";
  mode_t umask_ = umask(022);
};

TEST_F(SessionLogTest, ARenamedFileIsMadeAnewAndFollowed) {
  umask(077);  // takes every right from others
  const Agent& agent = session_.StartServingAgent();
  fs::rename(kLogFile, "/var/log/old");
  EXPECT_TRUE(IsTrueOfLog([] { return fs::exists(kLogFile); }));
  EXPECT_EQ(ModeOf(kLogFile), 0666);
  fs::rename(kLogFile, "/var/log/old");
  std::ofstream(kLogFile) << "";
  EXPECT_TRUE(IsTrueOfLog([] { return !LogLines().empty(); }));
  EXPECT_EQ(ModeOf(kLogFile), 0666);
  const fs::directory_iterator descriptors("/proc/" + std::to_string(agent.Pid()) + "/fd");
  EXPECT_EQ(std::ranges::count_if(descriptors,
                                  [](const fs::path& descriptor) {
                                    return fs::is_symlink(descriptor) &&
                                           fs::read_symlink(descriptor).string().starts_with("/var/log/");
                                  }),
            1);
  session_.StopAgent();
  EXPECT_TRUE(LogContains("closed"));
}

// In the file's place stands what nobody reads; the agent does not wait for a reader.
TEST_F(SessionLogTest, AFileThatCannotBeWrittenIsLeftForTheHomeOnce) {
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StartServingAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(ModeOf(fallback_), 0755);
  EXPECT_EQ(ModeOf(fallback_ / "corvessan.log"), 0666);
  const std::string log = HomeLog();
  EXPECT_NE(log.substr(0, log.find('\n')).find("/ Start Corvessan tandrel tool."), std::string::npos) << log;

  fs::remove_all(fallback_);
  std::this_thread::sleep_for(2100ms);  // two looks at the file, if there are lines
  session_.StopAgent();
  EXPECT_FALSE(fs::exists(fallback_)) << "the switch is not made twice";
  EXPECT_FALSE(fs::exists(kLogFile)) << "there is no way back";
}

// What finds a user's home may hold a lock of the C library at that moment.
TEST_F(SessionLogTest, NoSignalHandlerLooksForTheHome) {
  session_.StartServingAgent();
  std::size_t lines = 0;
  do {
    lines = LogLines().size();
    std::this_thread::sleep_for(1100ms);  // the next line, that of the handler, comes with a look at the file
  } while (LogLines().size() != lines);
  fs::remove(kLogFile);
  ASSERT_EQ(mkfifo(kLogFile, 0666), 0);
  session_.StopAgent();
  fs::remove(kLogFile);
  EXPECT_EQ(HomeLog().find("stopping service"), std::string::npos) << HomeLog();
}

}  // namespace
}  // namespace qel::test
