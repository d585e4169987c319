// A private X server.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/scoped_environment.h"

namespace qel::test {

// Starts an Xvfb on a free display with one screen of 1280 x 1024 pixels; throws when it does not come up. The
// destructor ends it in good order, so that it removes its socket.
class XServer {
 public:
  explicit XServer(const std::vector<std::string>& extra_arguments = {});
  ~XServer();
  XServer(const XServer&) = delete;
  XServer& operator=(const XServer&) = delete;

  // ":N", as the environment variable DISPLAY takes it.
  const std::string& Display() const { return display_; }
  pid_t Pid() const { return process_->Pid(); }

  // Ends the server at once, as a crash would; returns when it is gone.
  void Kill();

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string display_;
};

// Points DISPLAY at a server for as long as it lives; the earlier value, or its absence, comes back afterwards.
class ScopedDisplay : ScopedEnvironment {
 public:
  explicit ScopedDisplay(const std::string& display) : ScopedEnvironment({{"DISPLAY", display}}) {}
};

}  // namespace qel::test
