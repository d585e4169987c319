// Sessions with nothing but a window manager: whether the agent serves depends on the atoms that it makes.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "session/session.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

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
    session.Settle();
    session.Client().SetTitle(window, "renamed");
    EXPECT_TRUE(session.Sees("renamed"));
    session.Client().Close(window);
    EXPECT_TRUE(session.NoLongerSees("renamed"));
    session.StopAgent();
    session.ExpectNoViolations();
  }
}

TEST(WindowManagersTest, NamesTheAtomsThatItMisses) {
  Session session("openbox", SessionAtoms::kOfWindowManager);
  session.StartAgent();
  ASSERT_TRUE(WaitUntil([] { return LogContains("Warning: Tools Service: can't initialize all components"); }, kSoon));
  const std::vector<std::string> missing = MissingAtoms();
  EXPECT_FALSE(missing.empty());
  for (const std::string& name : missing) {
    EXPECT_FALSE(session.Client().Exists(name.c_str())) << name;
  }
  session.StopAgent();
  EXPECT_EQ(session.Count(MessageKind::kToolState), 0u);
  EXPECT_EQ(session.Count(MessageKind::kUnregister), 1u);

  session.CompleteAtoms();
  session.StartServingAgent();
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
