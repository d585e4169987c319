#include "tools_gate/resubmission.h"

#include <atomic>

namespace qel {
namespace {

std::atomic<bool> g_limited_for_good{false};
std::atomic<bool> g_limited_while_stopping{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler sets one");

}  // namespace

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
  if (!g_limited_for_good && !g_limited_while_stopping) {
    deadline_.reset();
    return true;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!deadline_) {
    deadline_ = now + kTgResubmissionLimit;
  }
  return now < *deadline_;
}

}  // namespace qel
