// Sessions with nothing but a window manager: whether the agent serves depends on the atoms that it makes.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using host::MessageKind;

std::vector<std::string> MissingAtoms() {
  const std::string prefix = "/ Error: Can't initialize atom ";
  std::vector<std::string> names;
  for (const std::string& line : LogLines()) {
    if (const std::size_t start = line.find(prefix); start != std::string::npos) {
      names.push_back(line.substr(start + prefix.size()));
    }
  }
  return names;
}

TEST(WindowManagersTest, ServesWhereTheWindowManagerMakesEveryAtom) {
  for (const char* window_manager : {"metacity", "icewm"}) {
    SCOPED_TRACE(window_manager);
    Session session(window_manager, SessionAtoms::kOfWindowManager);
    session.StartServingAgent();
    EXPECT_EQ(MissingAtoms(), std::vector<std::string>{});
    const Window window = session.Open({.title = "managed"});
    ASSERT_TRUE(session.Sees("managed"));
    EXPECT_EQ(session.FindTitle("managed")->id, session.Client().TopLevel(window));
    session.Client().SetTitle(window, "renamed");
    EXPECT_TRUE(session.Sees("renamed"));
    session.Client().Close(window);
    EXPECT_TRUE(session.NoLongerSees("renamed"));
    session.StopAgent();
    session.ExpectNoViolations();
  }
}

// The agent tries again every five seconds, and says what is missing only when that has changed.
TEST(WindowManagersTest, ServesOnceTheMissingAtomsAreThere) {
  constexpr std::chrono::milliseconds kPause = 5s;
  constexpr std::chrono::milliseconds kTwoPeriods = 200ms;
  const std::string all_missing = "Warning: Tools Service: can't initialize all components";
  Session session("openbox", SessionAtoms::kOfWindowManager);
  session.StartAgent();
  ASSERT_TRUE(WaitUntil([&] { return LogContains(all_missing); }, kSoon));
  const std::vector<std::string> missing = MissingAtoms();
  ASSERT_GE(missing.size(), 2u);
  for (const std::string& name : missing) {
    EXPECT_FALSE(session.Client().Exists(name.c_str())) << name;
  }
  std::this_thread::sleep_for(kPause + kSlack);  // the time in which nothing may be said
  EXPECT_EQ(MissingAtoms(), missing);
  EXPECT_EQ(LogCount(all_missing), 1);

  session.Client().Intern(missing.front().c_str());
  std::vector<std::string> with_rest = missing;
  with_rest.insert(with_rest.end(), missing.begin() + 1, missing.end());
  EXPECT_TRUE(WaitUntil([&] { return MissingAtoms() == with_rest; }, kPause + kTwoPeriods + kSlack));
  for (const MessageKind kind : {MessageKind::kToolState, MessageKind::kAppMenu, MessageKind::kAddRun}) {
    EXPECT_EQ(session.Count(kind), 0u);
  }

  session.CompleteAtoms();
  EXPECT_TRUE(session.Host().WaitFor([](const host::ModelState& state) { return state.enumeration_finished; },
                                     kPause + kTwoPeriods + kSlack));
  EXPECT_EQ(MissingAtoms(), with_rest);
  session.Open({.title = "served"});
  EXPECT_TRUE(session.Sees("served"));
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
