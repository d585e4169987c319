#include "tools_gate/resubmission.h"

#include <atomic>
#include <utility>

namespace qel {
namespace {

std::atomic<bool> g_limited_for_good{false};
std::atomic<bool> g_limited_while_stopping{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets one");

constexpr std::chrono::seconds kBetweenQuestions{1};
thread_local std::function<bool()> t_may_go_on;

}  // namespace

void TgAskBeforeResubmitting(std::function<bool()> may_go_on) {
  t_may_go_on = std::move(may_go_on);
}

void TgLimitResubmission() {
  g_limited_for_good = true;
}

void TgLimitResubmissionWhileStopping(bool stopping) {
  g_limited_while_stopping = stopping;
}

void TgLiftResubmissionLimits() {
  g_limited_for_good = false;
  g_limited_while_stopping = false;
}

bool TgResubmission::KeepTrying() {
  const auto now = std::chrono::steady_clock::now();
  if (g_limited_for_good || g_limited_while_stopping) {
    deadline_ = deadline_.value_or(now + kTgResubmissionLimit);
    return now < *deadline_;
  }
  deadline_.reset();
  next_question_ = next_question_.value_or(now + kBetweenQuestions);
  if (!t_may_go_on || now < *next_question_) {
    return true;
  }
  next_question_ = now + kBetweenQuestions;
  return t_may_go_on();
}

}  // namespace qel
