#include "base/respondent.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/wait_until.h"
#include "support/without_threads.h"

namespace qel {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

TEST(RespondentTest, AFailedQuestionEndsAtOnceAndAnotherMayFollow) {
  const test::LogCapture log;
  Respondent respondent("somebody");
  const auto start = Clock::now();
  EXPECT_EQ(respondent.AskWithin<int>(60s, []() -> int { throw std::runtime_error("on purpose"); }), std::nullopt);
  EXPECT_EQ(respondent.AskWithin<int>(60s, []() -> int { pthread_exit(nullptr); }), std::nullopt);
  {
    const test::WithoutThreads no_threads;
    EXPECT_EQ(respondent.AskWithin<int>(60s, [] { return 5; }), std::nullopt);
  }
  EXPECT_LT(Clock::now() - start, 10s);
  const auto is_blocked = [] {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGTERM) == 1;
  };
  EXPECT_EQ(respondent.AskWithin<bool>(60s, is_blocked), true) << "the asking thread must not get signals";
  EXPECT_FALSE(is_blocked());
  EXPECT_EQ(log.Texts(),
            (std::vector<std::string>{"Error: Asking somebody failed: on purpose",
                                      "Error: Failed to create thread: Resource temporarily unavailable"}));
  EXPECT_FALSE(IsAnyQuestionOpen());
}

TEST(RespondentTest, AfterATimeoutNothingIsAskedAgain) {
  const test::LogCapture log;
  static std::atomic<bool> may_answer{false};
  static std::atomic<int> asked{0};
  static std::atomic<int> answered{0};
  const auto late_question = [text = std::string("kept with the question")] {
    ++asked;
    may_answer.wait(false);
    ++answered;
    return text;
  };
  Respondent respondent("Godot");
  EXPECT_EQ(respondent.AskWithin<std::string>(20ms, late_question), std::nullopt);
  EXPECT_EQ(respondent.AskWithin<std::string>(60s, late_question), std::nullopt);
  EXPECT_EQ(log.Count("Warning: Godot takes too long to answer and is not asked any more"), 1);
  EXPECT_TRUE(IsAnyQuestionOpen());
  may_answer.store(true);
  may_answer.notify_all();
  EXPECT_TRUE(test::WaitUntil([] { return answered.load() == asked.load(); }));
  EXPECT_EQ(asked.load(), 1);
}

TEST(RespondentTest, StopAskingEndsTheWaitAndPreventsNewQuestions) {
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
}

}  // namespace
}  // namespace qel
