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
  std::vector<std::string> arguments{};  // the program (looked up in PATH) and what follows it
  // Variables to set, or to remove where there is no value.
  std::vector<std::pair<std::string, std::optional<std::string>>> environment{};
  // Descriptors to become 0 and 1; -1: the test's own. They stay the caller's.
  int standard_input = -1;
  int standard_output = -1;
};

// How a child ended.
struct ChildStatus {
  std::optional<int> exit_code;  // when it ended by itself
  int signal = 0;                // else what ended it
};

// Starts the program at construction and returns when it runs (env(1), first, where it gets another environment);
// throws when it cannot be executed. The kernel kills it when the thread that started it ends, so that a test that
// crashes leaves nothing behind; the destructor kills and reaps it.
class ChildProcess {
 public:
  explicit ChildProcess(const ChildOptions& options);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t Pid() const { return pid_; }

  // Sends a signal, unless the end was seen already.
  void Kill(int signal_number) const;

  // Waits for the end; nothing when it does not come in time. May be called again after the end.
  std::optional<ChildStatus> Wait(std::chrono::milliseconds timeout = std::chrono::milliseconds(30'000));

 private:
  pid_t pid_ = -1;
  std::optional<ChildStatus> ended_;
};

// Starts a server that prints a line on descriptor 3 once it can be used, and returns that line. What it writes
// elsewhere is dropped. Throws when there is no line in a minute.
std::string StartServer(std::unique_ptr<ChildProcess>& server, ChildOptions options);

}  // namespace qel::test
