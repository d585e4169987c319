// A program that a test starts.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qel::test {

struct ChildOptions {
  std::vector<std::string> arguments{};  // the program, which is searched for in PATH, and its arguments
  // Variables to set. A variable without a value is removed.
  std::vector<std::pair<std::string, std::optional<std::string>>> environment{};
  // The child's descriptors 0 and 1; -1: the same as the test's. The caller still owns them.
  int standard_input = -1;
  int standard_output = -1;
};

// How a child ended.
struct ChildStatus {
  std::optional<int> exit_code;  // set if it ended by itself
  int signal = 0;                // otherwise the signal that ended it
};

// The constructor starts the program and returns when it runs. If the environment is changed, env(1) runs first. It
// throws when the program cannot be executed. The destructor kills and reaps the program. The kernel kills it when the
// thread that started it ends, so that a crashing test leaves no process behind.
class ChildProcess {
 public:
  explicit ChildProcess(const ChildOptions& options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }

  // Sends a signal, unless Wait() has already returned the status.
  void Kill(int signal_number) const;

  // Waits for the end. Returns nullopt at the timeout. May be called again after the end.
  std::optional<ChildStatus> Wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(30'000));

 private:
  pid_t pid_ = -1;
  std::optional<ChildStatus> ended_;
};

// Starts a server that writes a line to descriptor 3 when it is ready, and returns that line. Its other output is
// discarded. Throws when there is no line within a minute.
std::string StartServer(std::unique_ptr<ChildProcess>& server, ChildOptions options);

}  // namespace qel::test
