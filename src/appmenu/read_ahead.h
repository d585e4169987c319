// Having many small files read at once when they are not in memory yet.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

namespace qel {

// Watches how long each file of a list takes to read. When some have come from the disk, helper threads ask the system
// for the rest of the list, so that the reader finds it in memory; at log-in that saves most of the waiting. Where the
// files are in memory already, no thread is started and no system call added.
class ReadAhead {
 public:
  using Clock = std::chrono::steady_clock;

  // The time of reading one file; keep it while reading.
  class Reading {
   public:
    Reading(ReadAhead& ahead, std::size_t index) : ahead_(ahead), index_(index), begin_(Clock::now()) {}
    ~Reading() { ahead_.End(index_, Clock::now() - begin_); }
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

   private:
    ReadAhead& ahead_;
    const std::size_t index_;
    const Clock::time_point begin_;
  };

  // The paths must outlive the object and stay as they are.
  explicit ReadAhead(const std::vector<std::string>& paths) : paths_(paths) {}

  // Ends the helpers and waits for them.
  ~ReadAhead();
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

  Reading Begin(std::size_t index) { return Reading(*this, index); }

 private:
  void End(std::size_t index, Clock::duration took);
  void StartHelpers(std::size_t first);
  void Ask();

  const std::vector<std::string>& paths_;
  int slow_files_ = 0;
  std::atomic<std::size_t> next_{0};  // the path that the next free helper takes
  std::vector<std::thread> helpers_;
};

}  // namespace qel
