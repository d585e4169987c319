// A private X server.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/scoped_environment.h"

namespace qel::test {

// Starts Xvfb on a free display with one screen of 1280 x 1024 pixels. Throws when it does not start. The destructor
// lets it end normally, so that it removes its socket.
class XServer {
 public:
  explicit XServer(const std::vector<std::string>& extra_arguments = {});
  ~XServer();
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;

  // ":N", the value for the environment variable DISPLAY.
  const std::string& Display() const { return display_; }
  pid_t Pid() const { return process_->Pid(); }

  // Kills the server, like a crash, and waits for its end.
  void Kill();

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string display_;
};

// Sets DISPLAY as long as this object exists. The destructor restores the earlier value, or removes the variable.
class ScopedDisplay : ScopedEnvironment {
 public:
  explicit ScopedDisplay(const std::string& display) : ScopedEnvironment({{"DISPLAY", display}}) {}
};

}  // namespace qel::test
