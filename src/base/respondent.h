// Calls to another program that may never answer: a message bus, the window matcher (BAMF), an X server.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace qel {

// One such program. Only one thread at a time may use an object of this class.
//
// Every question runs on a new thread ("tdl.ask") with all signals blocked. The question may end that thread with
// pthread_exit(). When the answer takes too long, the caller stops waiting: the thread is detached and keeps running,
// one warning is logged, and this respondent is never asked again, so that no second thread can hang. A question must
// therefore own all that it uses, or use objects that live as long as the process.
class Respondent {
 public:
  // `name` is used in log messages. It is not copied and must outlive this object.
  explicit Respondent(const char* name) : name_(name) {}

  // Runs `question` and waits at most `patience` for its result. Returns nullopt without an answer: it came too late or
  // never, the question threw an exception or ended its thread, no thread could be started, or StopAsking() was called.
  template <typename Answer>
  std::optional<Answer> AskWithin(std::chrono::milliseconds patience, std::function<Answer()> question) {
    const auto answer = std::make_shared<std::optional<Answer>>();
    if (!RunWithin(patience, [answer, question = std::move(question)] { *answer = question(); })) {
      return std::nullopt;
    }
    return std::move(*answer);
  }

 private:
  // Runs the question. Returns true when its thread ended in time, with or without an answer.
  bool RunWithin(std::chrono::milliseconds patience, std::function<void()> question);

  const char* name_;
  bool was_too_late_ = false;
};

// After StopAsking() no question is started, and no thread waits for an answer, until ResumeAsking() is called. For all
// respondents and threads. A signal handler may call StopAsking().
void StopAsking();
void ResumeAsking();

// True as soon as one question was left running on a detached thread; it never becomes false again. That thread may
// still execute code of any library that questions use. Such a library must then stay loaded, and the tables of its
// functions must not change.
bool IsAnyQuestionOpen();

}  // namespace qel
