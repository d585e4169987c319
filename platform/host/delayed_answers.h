// Answers that are due later, given by one thread in the order of their times.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace qel::host {

// Why an answer is given now.
enum class Due { kOnTime, kInterrupted };

class DelayedAnswers {
 public:
  using Clock = std::chrono::steady_clock;
  using Give = std::function<void(Due)>;

  DelayedAnswers();
  ~DelayedAnswers();  // gives what is left, at once

  // `give` is called on the thread of this object at `time`; `key` tells it apart from the others that wait.
  void Add(const void* key, Clock::time_point time, Give give);
  // Gives this one now, if it still waits. Does not wait for that.
  void Interrupt(const void* key);

 private:
  struct Waiting {
    const void* key;
    Due due;
    Give give;
  };

  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::multimap<Clock::time_point, Waiting> waiting_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace qel::host
