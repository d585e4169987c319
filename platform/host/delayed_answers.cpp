#include "host/delayed_answers.h"

#include <algorithm>

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

void DelayedAnswers::Add(const void* key, Clock::time_point time, Give give) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.emplace(time, Waiting{key, Due::kOnTime, std::move(give)});
  }
  changed_.notify_all();
}

void DelayedAnswers::Interrupt(const void* key) {
  {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(waiting_.begin(), waiting_.end(), [key](const auto& entry) { return entry.second.key == key; });
    if (found == waiting_.end()) return;
    Waiting entry = std::move(found->second);
    entry.due = Due::kInterrupted;
    waiting_.erase(found);
    waiting_.emplace(Clock::time_point::min(), std::move(entry));
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
    const Waiting entry = std::move(first->second);
    waiting_.erase(first);
    lock.unlock();
    entry.give(entry.due);
    lock.lock();
  }
}

}  // namespace qel::host
