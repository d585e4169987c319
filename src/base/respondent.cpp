#include "base/respondent.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <exception>
#include <mutex>

#include "log/log.h"

namespace qel {
namespace {

// How often somebody who waits looks whether he still should: whoever stops the asking may be a signal handler, which
// cannot wake anybody.
constexpr std::chrono::milliseconds kStopCheck{50};

std::atomic<bool> g_stopped{false};
std::atomic<bool> g_left_open{false};

// Shared by the thread that waits and the one that asks.
struct Question {
  const char* respondent;
  std::function<void()> body;
  bool answered = false;
  std::mutex lock{};
  std::condition_variable end{};
  bool ended = false;  // under the lock
};

class EndMark {
 public:
  explicit EndMark(Question& question) : question_(question) {}
  ~EndMark() {
    const std::lock_guard guard(question_.lock);
    question_.ended = true;
    question_.end.notify_one();
  }
  EndMark(const EndMark&) = delete;
  EndMark& operator=(const EndMark&) = delete;

 private:
  Question& question_;
};

void* AskingThread(void* argument) {
  const std::unique_ptr<std::shared_ptr<Question>> own(static_cast<std::shared_ptr<Question>*>(argument));
  Question& question = **own;
  pthread_setname_np(pthread_self(), "tdl.ask");
  const EndMark mark(question);  // also where the thread ends inside of the question
  try {
    question.body();
    question.answered = true;
  } catch (const std::exception& error) {
    LogError(kModuleAgent, "Error: Asking %s failed: %s", question.respondent, error.what());
  }
  return nullptr;
}

// Signals are for the other threads: their handlers must not run in the middle of a library that hangs. GDBus raises
// SIGTERM, moreover, in the thread that notices the end of the session bus; blocked, that ends with the thread.
int StartWithoutSignals(pthread_t& thread, std::shared_ptr<Question> question) {
  auto argument = std::make_unique<std::shared_ptr<Question>>(std::move(question));
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  const int error = pthread_create(&thread, nullptr, AskingThread, argument.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (error == 0) {
    argument.release();  // the thread's now
  }
  return error;
}

bool WaitForEnd(Question& question, std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::unique_lock guard(question.lock);
  while (!question.ended && !g_stopped.load()) {
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) {
      break;
    }
    question.end.wait_until(guard, std::min(deadline, now + kStopCheck));
  }
  return question.ended;
}

}  // namespace

bool Respondent::RunWithin(std::chrono::milliseconds patience, std::function<void()> body) {
  if (was_too_late_ || g_stopped.load()) {
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
    pthread_join(thread, nullptr);  // no library is left in use
    return question->answered;
  }
  g_left_open.store(true);
  was_too_late_ = true;
  pthread_detach(thread);
  if (!g_stopped.load()) {
    LogWarning(kModuleAgent, "Warning: %s takes too long to answer and is not asked any more", name_);
  }
  return false;
}

void StopAsking() {
  g_stopped.store(true);
}

void ResumeAsking() {
  g_stopped.store(false);
}

bool IsAnyQuestionOpen() {
  return g_left_open.load();
}

}  // namespace qel
