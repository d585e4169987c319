// Questions to somebody outside of the program, who may take the question and never answer: a message bus, a matcher,
// an X server.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace qel {

// Somebody who is asked. Each is asked by one thread at a time.
//
// Every question runs on a thread of its own ("tdl.ask"), with all signals blocked, which may end by pthread_exit(). An
// answer that takes too long is not waited for: the thread is left to itself, one warning is logged, and this
// respondent is not asked any more, so that no second thread gets stuck with it. The question must therefore own what
// it uses, or use what lives as long as the process.
class Respondent {
 public:
  // The name is for the log, and stays the caller's.
  explicit Respondent(const char* name) : name_(name) {}

  // Nothing when there is no answer: it came too late or never, the question threw or ended its thread, no thread could
  // be started, or the asking was stopped.
  template <typename Answer>
  std::optional<Answer> AskWithin(std::chrono::milliseconds patience, std::function<Answer()> question) {
    const auto answer = std::make_shared<std::optional<Answer>>();
    if (!RunWithin(patience, [answer, question = std::move(question)] { *answer = question(); })) {
      return std::nullopt;
    }
    return std::move(*answer);
  }

 private:
  // Runs the question; whether it ended in time, with an answer or without.
  bool RunWithin(std::chrono::milliseconds patience, std::function<void()> question);

  const char* name_;
  bool was_too_late_ = false;
};

// From StopAsking() on, which a signal handler may call, nobody is asked or waited for until ResumeAsking().
void StopAsking();
void ResumeAsking();

// True once a question was left to itself, for good: its thread may be, or may have been a moment ago, inside of any
// library that questions use. Such a library must then stay in memory, and the tables of its functions as they are.
bool IsAnyQuestionOpen();

}  // namespace qel
