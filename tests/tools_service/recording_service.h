// What tests of the Tools Service share.
#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "tools_service/service_types.h"

namespace qel::test {

// A semaphore key that nobody else uses; the semaphore is removed in the end.
class SemaphoreKey {
 public:
  SemaphoreKey();
  ~SemaphoreKey();
  SemaphoreKey(const SemaphoreKey&) = delete;
  SemaphoreKey& operator=(const SemaphoreKey&) = delete;

  key_t Value() const { return value_; }
  // -1 where there is no semaphore.
  int Count() const;
  void Set(int count) const;

 private:
  key_t value_ = 0;
};

// The calls that services get, in their order. Services of one journal write "<name>.<call>".
class Journal {
 public:
  void Add(const std::string& entry);
  std::vector<std::string> Entries() const;
  int Count(const std::string& entry) const;
  bool WaitFor(const std::string& entry, int count = 1) const;

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// A service that notes its calls. The hooks run after the noting, on the worker.
struct RecordingService {
  RecordingService(const char* name, Journal& journal);
  RecordingService(const RecordingService&) = delete;
  RecordingService& operator=(const RecordingService&) = delete;

  ServiceDescriptor descriptor;
  std::function<bool(ServiceContext&)> on_init = [](ServiceContext&) { return true; };
  std::function<void(ServiceContext&)> on_poll = [](ServiceContext&) {};
  std::function<void(ServiceContext&)> on_stop = on_poll;
};

}  // namespace qel::test
