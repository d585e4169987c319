// Gives delayed answers at their times, on one thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace qel::host {

class DelayedAnswers {
 public:
  using Clock = std::chrono::steady_clock;
  using Give = std::function<void()>;

  DelayedAnswers();
  ~DelayedAnswers();  // gives the remaining answers at once

  // Calls `give` on the thread of this object at `time`. Any thread may call Add().
  void Add(Clock::time_point time, Give give);

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, Give> waiting_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace qel::host
