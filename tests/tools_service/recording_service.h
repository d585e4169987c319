// Helpers for tests of the Tools Service.
#pragma once

#include <sys/sem.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "support/wait_until.h"
#include "tools_service/service_types.h"

namespace qel::test {

// A semaphore key for one test. The destructor removes the semaphore.
class SemaphoreKey {
 public:
  ~SemaphoreKey() { Remove(); }

  key_t Value() const { return value_; }
  int Id() const { return semget(value_, 1, 0); }
  // -1 if there is no semaphore.
  int Count() const { return semctl(Id(), 0, GETVAL); }
  void Set(int count) const { semctl(semget(value_, 1, IPC_CREAT | 0666), 0, SETVAL, count); }
  void Remove() const { semctl(Id(), 0, IPC_RMID); }

 private:
  const key_t value_ = static_cast<key_t>(std::random_device()() >> 1 | 1);
};

// The calls of all services that use this journal, in order, as "<service>.<call>".
class Journal {
 public:
  void Add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    entries_.push_back(entry);
  }
  std::vector<std::string> Entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }
  int Count(const std::string& entry) const { return static_cast<int>(std::ranges::count(Entries(), entry)); }
  bool WaitFor(const std::string& entry, int count = 1) const {
    return WaitUntil([&] { return Count(entry) >= count; });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// A service that records its calls in the journal. After that it calls the hook, on the worker.
struct RecordingService {
  RecordingService(const char* name, Journal& journal) {
    const auto note = [&journal, prefix = std::string(name)](const char* call) { journal.Add(prefix + call); };
    descriptor.name = name;
    descriptor.init = [this, note](ServiceContext& context) { return note(".init"), on_init(context); };
    descriptor.poll = [this, note](ServiceContext& context) { note(".poll"), on_poll(context); };
    descriptor.stop = [this, note](ServiceContext& context) { return note(".stop"), on_stop(context); };
    descriptor.event = [note](ServiceContext&, void*) { note(".event"); };
  }

  ServiceDescriptor descriptor;
  std::function<bool(ServiceContext&)> on_init = [](ServiceContext&) { return true; };
  std::function<bool(ServiceContext&)> on_stop = on_init;
  std::function<void(ServiceContext&)> on_poll = [](ServiceContext&) {};
};

}  // namespace qel::test
