#include "host/model.h"

#include <gtest/gtest.h>

namespace qel::host {
namespace {

class ModelTest : public testing::Test {
 protected:
  void Say(const Notification& notification, pid_t agent = 1, Outcome outcome = Outcome::kTaken) {
    Event event;
    event.agent = agent;
    event.outcome = outcome;
    event.notification = notification;
    model_.Apply(std::move(event));
  }
  static AddRun Run(std::uint32_t pid, std::uint32_t window) { return {pid, window, 0, "n", "/p", "t", {}, {}}; }
  std::uint64_t Remarks() const { return model_.Snapshot().remarks; }

  Model model_;
};

TEST_F(ModelTest, FollowsWindowsAndRemarksOnOddOnes) {
  Say(Run(5, 50));
  Say(Run(5, 51));
  Say(Run(6, 60), 1, Outcome::kRejected);  // not taken: changes nothing
  EXPECT_EQ(model_.Snapshot().WindowCount(), 2U);
  EXPECT_EQ(Remarks(), 0U);
  Say(Run(5, 50));
  EXPECT_EQ(Remarks(), 1U);
  Say(Run(5, 50), 2);  // another agent's view of the same window
  EXPECT_EQ(Remarks(), 1U);
  Say(RmvRun{5, 99});
  EXPECT_EQ(Remarks(), 2U);
  Say(RmvRun{5, 50});
  Say(RmvRun{5, 51});
  EXPECT_TRUE(model_.Snapshot().applications.empty());
}

// Titles name the application's own window, which is not the reported one where the window manager adds frames.
TEST_F(ModelTest, FindsTheWindowOfATitle) {
  Say(Run(5, 50));
  Say(WindowTitle{5, 777, "only one"});
  EXPECT_NE(model_.Snapshot().FindTitle("only one"), nullptr);
  Say(Run(5, 51));
  Say(WindowTitle{5, 51, "by id"});
  EXPECT_EQ(model_.Snapshot().FindTitle("by id")->id, 51U);
  Say(WindowTitle{5, 778, "unclear"});
  EXPECT_EQ(model_.Snapshot().FindTitle("unclear"), nullptr);
  EXPECT_EQ(model_.Snapshot().applications.at(5).inner_titles.at(778), "unclear");
  Say(WindowTitle{9, 1, "nobody"});
  EXPECT_EQ(Remarks(), 1U);
}

TEST_F(ModelTest, StartsAnewOnlyAfterAReset) {
  Say(Run(5, 50));
  Say(HiddenWindows{1, 2, {50}});
  Say(FinishEnum{});
  Say(ToolState{false});
  Say(ToolState{true});  // a console regained: what was reported stays
  EXPECT_EQ(model_.Snapshot().WindowCount(), 1U);
  EXPECT_FALSE(model_.Snapshot().enumeration_finished);
  EXPECT_EQ(model_.Snapshot().hidden_windows.count(50), 1U);
  model_.CommandServed(1, ActivateWindowCommand(50));
  EXPECT_TRUE(model_.Snapshot().hidden_windows.empty());
  model_.CommandServed(1, ResetCommand());
  Say(ToolState{true});
  EXPECT_EQ(model_.Snapshot().WindowCount(), 0U);
  EXPECT_EQ(Remarks(), 0U);
}

}  // namespace
}  // namespace qel::host
