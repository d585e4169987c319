#include "base/respondent.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/log_capture.h"
#include "support/wait_until.h"

namespace qel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(RespondentTest, WhoeverGivesNoAnswerIsNotWaitedForAndMayBeAskedAgain) {
  const struct {
    const char* name;
    std::function<int()> question;
  } kCases[] = {{"throws", []() -> int { throw std::runtime_error("on purpose"); }},
                {"ends its thread", []() -> int { pthread_exit(nullptr); }}};
  for (const auto& row : kCases) {
    const test::LogCapture log;
    Respondent respondent(row.name);
    const auto start = Clock::now();
    EXPECT_EQ(respondent.AskWithin<int>(60s, row.question), std::nullopt) << row.name;
    EXPECT_LT(Clock::now() - start, 10s) << row.name;
    EXPECT_EQ(respondent.AskWithin<int>(60s, [] { return 5; }), 5) << row.name;
    EXPECT_LE(log.Texts().size(), 1U) << row.name;
  }
  EXPECT_FALSE(IsAnyQuestionOpen());
}

TEST(RespondentTest, LeavesSignalsToOtherThreads) {
  Respondent respondent("a thread");
  const auto blocked = respondent.AskWithin<sigset_t>(60s, [] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
  });
  ASSERT_TRUE(blocked);
  EXPECT_EQ(sigismember(&*blocked, SIGTERM), 1);
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

TEST(RespondentTest, WhoeverIsTooLateIsLeftAloneAndNotAskedAgain) {
  const test::LogCapture log;
  static std::atomic<bool> may_answer{false};
  static std::atomic<bool> answers{false};
  static std::atomic<int> asked{0};
  const auto late_question = [text = std::string("kept with the question")] {
    ++asked;
    may_answer.wait(false);
    answers.store(true);
    return text;
  };
  Respondent respondent("Godot");
  EXPECT_EQ(respondent.AskWithin<std::string>(20ms, late_question), std::nullopt);
  EXPECT_EQ(respondent.AskWithin<std::string>(60s, late_question), std::nullopt);
  EXPECT_EQ(asked.load(), 1);
  EXPECT_EQ(log.Count("Warning: Godot takes too long to answer and is not asked any more"), 1);
  EXPECT_TRUE(IsAnyQuestionOpen());

  Respondent other("another");
  EXPECT_EQ(other.AskWithin<int>(60s, [] { return 5; }), 5);
  may_answer.store(true);
  may_answer.notify_all();
  EXPECT_TRUE(test::WaitUntil([] { return answers.load(); }));
}

TEST(RespondentTest, AStopEndsTheWaitingAndTheAsking) {
  const test::LogCapture log;
  Respondent respondent("nobody");
  const auto start = Clock::now();
  const auto endless = [] {
    StopAsking();
    std::this_thread::sleep_for(20s);
    return 5;
  };
  EXPECT_EQ(respondent.AskWithin<int>(15s, endless), std::nullopt);
  EXPECT_LT(Clock::now() - start, 5s);
  Respondent other("another");
  EXPECT_EQ(other.AskWithin<int>(60s, [] { return 5; }), std::nullopt);
  ResumeAsking();
  EXPECT_EQ(other.AskWithin<int>(60s, [] { return 5; }), 5);
  EXPECT_EQ(log.Texts().size(), 0U);
}

}  // namespace
}  // namespace qel
