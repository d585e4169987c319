// What the tests of Wayland sessions share.
#pragma once

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {

// Sets a variable of this process, or removes it where there is no value, for as long as it lives.
class ScopedVariable {
 public:
  ScopedVariable(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* earlier = std::getenv(name_.c_str())) {
      earlier_ = earlier;
    }
    Set(value);
  }
  ~ScopedVariable() { Set(earlier_); }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  void Set(const std::optional<std::string>& value) const {
    value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
  }

  std::string name_;
  std::optional<std::string> earlier_;
};

// A console semaphore's key of this process's own; the set is removed with the object.
class ConsoleKey {
 public:
  ConsoleKey() = default;
  ~ConsoleKey() { semctl(semget(value_, 1, 0), 0, IPC_RMID); }
  ConsoleKey(const ConsoleKey&) = delete;
  ConsoleKey& operator=(const ConsoleKey&) = delete;
  key_t Value() const { return value_; }

 private:
  key_t value_ = 0x51000000 + getpid();
};

}  // namespace qel::test
