// A listed window that is not to be reported yet is looked at again when what stood against it changes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "session/session.h"

namespace qel::test {
namespace {

using host::MessageKind;

constexpr const char* kNormal = "_NET_WM_WINDOW_TYPE_NORMAL";
constexpr const char* kType = "_NET_WM_WINDOW_TYPE";

enum class Frame { kNone, kMapped, kUnmapped };

struct Candidate {
  const char* title;
  WindowTraits traits;  // without a process: the test's
  std::function<void(XClient& client, Window window)> change;
  bool mapped = true;
  bool listed = true;
  Frame frame = Frame::kNone;
};

class CandidatesTest : public testing::TestWithParam<const char*> {
 protected:
  // In a session without a window manager: the test has every step in its own hand.
  CandidatesTest() : session_(""), process_(session_.NewProcess()) {}

  // As it is before it qualifies.
  Window Prepare(const Candidate& candidate) {
    WindowTraits traits = candidate.traits;
    traits.title = candidate.title;
    traits.pid = traits.pid == kNoPid ? 0 : process_.Pid();
    if (candidate.frame != Frame::kNone) {
      traits.parent = session_.Client().CreateFrame();
    }
    const Window window = session_.Client().Create(traits);
    if (candidate.mapped) {
      session_.Client().Map(window);
    }
    if (candidate.frame == Frame::kMapped) {
      session_.Client().Map(traits.parent);
    }
    if (candidate.listed) {
      session_.List(window);
    }
    return window;
  }

  static constexpr std::int32_t kNoPid = -1;
  Session session_;
  IdleProcess& process_;
};

TEST_P(CandidatesTest, AreReportedOnceTheyQualifyAndNotBefore) {
  const auto pid = static_cast<std::uint32_t>(process_.Pid());
  const auto set_pid = [=](XClient& client, Window window) { client.SetCardinal(window, "_NET_WM_PID", pid); };
  const auto set_type = [](XClient& client, Window window) { client.SetAtom(window, kType, kNormal); };
  const auto grow = [](XClient& client, Window window) { client.Resize(window, 200, 100); };
  const auto map = [](XClient& client, Window window) { client.Map(window); };
  const auto map_frame = [](XClient& client, Window window) { client.Map(client.TopLevel(window)); };
  const auto hide = [](XClient& client, Window window) {
    client.SetAtom(window, "_NET_WM_STATE", "_NET_WM_STATE_HIDDEN");
  };
  const auto list = [this](XClient&, Window window) { session_.List(window); };
  const std::vector<Candidate> candidates = {
      {"typed later", {.type = ""}, set_type},
      {"typed later in a frame", {.type = ""}, set_type, true, true, Frame::kMapped},
      {"another type later", {.type = "_NET_WM_WINDOW_TYPE_SPLASH"}, set_type},
      {"process later", {.pid = kNoPid}, set_pid},
      {"process later in a frame", {.pid = kNoPid}, set_pid, true, true, Frame::kMapped},
      {"grown later", {.width = 1, .height = 1}, grow},
      {"grown later in a frame", {.width = 1, .height = 1}, grow, true, true, Frame::kMapped},
      {"mapped later", {}, map, false},
      {"mapped later in a frame", {}, map, false, true, Frame::kMapped},
      {"frame mapped later", {}, map_frame, true, true, Frame::kUnmapped},
      {"hidden later", {}, hide, false},
      {"hidden later in a frame", {}, hide, false, true, Frame::kUnmapped},
      {"listed later", {}, list, true, false},
      {"listed later in a frame", {}, list, true, false, Frame::kMapped},
  };
  // A change that is not enough, and one that takes the window away.
  const std::vector<Candidate> never = {
      {"made a utility window",
       {},
       [&](XClient& client, Window window) {
         client.SetAtom(window, kType, "_NET_WM_WINDOW_TYPE_UTILITY");
         client.Map(window);
       },
       false},
      {"typed without a process", {.pid = kNoPid, .type = ""}, set_type},
      {"grown to a line",
       {.width = 1, .height = 1},
       [](XClient& client, Window window) { client.Resize(window, 1, 100); }},
      {"mapped and not listed", {}, map, false, false},
      {"a process that is none",
       {.pid = kNoPid},
       [](XClient& client, Window window) { client.SetCardinal(window, "_NET_WM_PID", 0); }},
      {"closed instead", {}, [](XClient& client, Window window) { client.Close(window); }, false},
  };

  const bool there_before = std::string(GetParam()) == "ThereBefore";
  if (!there_before) {
    session_.StartServingAgent();
  }
  std::vector<Window> windows;
  std::vector<Window> others;
  for (const Candidate& candidate : candidates) {
    windows.push_back(Prepare(candidate));
  }
  for (const Candidate& candidate : never) {
    others.push_back(Prepare(candidate));
  }
  if (there_before) {
    session_.StartServingAgent();
  }
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), 1u) << "too early";

  for (std::size_t i = 0; i < never.size(); ++i) {
    never[i].change(session_.Client(), others[i]);
  }
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    candidates[i].change(session_.Client(), windows[i]);
    EXPECT_TRUE(session_.Host().WaitFor(
        [&](const host::ModelState& state) { return state.FindTitle(candidates[i].title) != nullptr; }, kSlack))
        << candidates[i].title;
  }
  // A change that comes later makes none of them new.
  for (const Window window : windows) {
    set_pid(session_.Client(), window);
    grow(session_.Client(), window);
    map(session_.Client(), window);
  }
  session_.Settle();
  EXPECT_EQ(session_.Count(MessageKind::kAddRun), candidates.size() + 2);
  EXPECT_EQ(session_.Count(MessageKind::kRmvRun), 0u);
  session_.StopAgent();
  session_.ExpectNoViolations();
}

INSTANTIATE_TEST_SUITE_P(Windows, CandidatesTest, testing::Values("ThereBefore", "OpenedLater"),
                         [](const auto& when) { return std::string(when.param); });

}  // namespace
}  // namespace qel::test
