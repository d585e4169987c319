#include "host/delayed_answers.h"

namespace qel::host {

DelayedAnswers::DelayedAnswers() : thread_([this] { Run(); }) {}

DelayedAnswers::~DelayedAnswers() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void DelayedAnswers::Add(Clock::time_point time, Give give) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.emplace(time, std::move(give));
  }
  changed_.notify_all();
}

void DelayedAnswers::Run() {
  std::unique_lock lock(mutex_);
  while (!waiting_.empty() || !stopping_) {
    if (waiting_.empty()) {
      changed_.wait(lock);
      continue;
    }
    const auto first = waiting_.begin();
    if (!stopping_ && first->first > Clock::now()) {
      changed_.wait_until(lock, Clock::time_point(first->first));
      continue;
    }
    const Give give = std::move(first->second);
    waiting_.erase(first);
    lock.unlock();
    give();
    lock.lock();
  }
}

}  // namespace qel::host
