// A session bus for tests, and scripts that run on one.
#pragma once

#include <memory>
#include <string>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace qel::test {

// A session bus that runs as long as this object exists. The constructor throws when the bus does not start. The
// programs that the bus starts get the test's environment with these changes.
class SessionBus {
 public:
  explicit SessionBus(decltype(ChildOptions::environment) environment = {});
  const std::string& Address() const { return address_; }

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

// Runs a shell script on a new session bus, in the directory `home`, which is also its $HOME. `environment` contains
// changes to the test's environment. The script ends at the first command that fails. Returns its output. The test
// fails when the script does not end with status 0 within a minute.
std::string RunOnSessionBus(const TempDir& home, const std::string& script,
                            decltype(ChildOptions::environment) environment);

}  // namespace qel::test
