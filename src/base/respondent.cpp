#include "base/respondent.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <exception>

#include "base/stop_flag.h"
#include "log/log.h"

namespace qel {
namespace {

// How often a waiting thread checks for StopAsking(). That function may run in a signal handler, and has no list of
// waiting threads that it could wake.
constexpr std::chrono::milliseconds kStopCheck{50};

StopFlag g_stopped;
std::atomic<bool> g_left_open{false};

// Shared by the waiting thread and the asking thread.
struct Question {
  Question(const char* its_respondent, std::function<void()> its_body)
      : respondent(its_respondent), body(std::move(its_body)) {}

  const char* const respondent;
  const std::function<void()> body;
  StopFlag ended;
};

void* AskingThread(void* argument) {
  const std::unique_ptr<std::shared_ptr<Question>> own(static_cast<std::shared_ptr<Question>*>(argument));
  Question& question = **own;
  pthread_setname_np(pthread_self(), "tdl.ask");
  const StopFlag::SetAtScopeEnd end(question.ended);  // the question itself may end the thread
  try {
    question.body();
  } catch (const std::exception& error) {
    LogError(kModuleAgent, "Error: Asking %s failed: %s", question.respondent, error.what());
  }
  return nullptr;
}

// All signals are blocked in the asking thread: no handler may run inside a library call that hangs. Also, GDBus raises
// SIGTERM in the thread that notices the end of the session bus. While the signal is blocked, it disappears with the
// thread.
int StartWithoutSignals(pthread_t& thread, std::shared_ptr<Question> question) {
  auto argument = std::make_unique<std::shared_ptr<Question>>(std::move(question));
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(&thread, nullptr, AskingThread, argument.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error == 0) {
    (void)argument.release();  // the thread owns it now
  }
  return error;
}

bool WaitForEnd(const Question& question, std::chrono::milliseconds patience) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + patience;
  for (auto now = Clock::now(); now < deadline && !g_stopped.IsSet(); now = Clock::now()) {
    if (question.ended.WaitFor(std::min<Clock::duration>(deadline - now, kStopCheck))) {
      return true;
    }
  }
  return question.ended.IsSet();
}

}  // namespace

bool Respondent::RunWithin(std::chrono::milliseconds patience, std::function<void()> body) {
  if (was_too_late_ || g_stopped.IsSet()) {
    return false;
  }
  const auto question = std::make_shared<Question>(name_, std::move(body));
  pthread_t thread{};
  const int error = StartWithoutSignals(thread, question);
  if (error != 0) {
    LogError(kModuleAgent, "Error: Failed to create thread: %s", std::strerror(error));
    return false;
  }
  if (WaitForEnd(*question, patience)) {
    pthread_join(thread, nullptr);  // after this the thread uses no library any more
    return true;
  }
  g_left_open.store(true);
  was_too_late_ = true;
  pthread_detach(thread);
  if (!g_stopped.IsSet()) {
    LogWarning(kModuleAgent, "Warning: %s takes too long to answer and is not asked any more", name_);
  }
  return false;
}

void StopAsking() {
  g_stopped.Set();
}

void ResumeAsking() {
  g_stopped.Clear();
}

bool IsAnyQuestionOpen() {
  return g_left_open.load();
}

}  // namespace qel
