// Session buses, and programs on one of their own.
#pragma once

#include <memory>
#include <string>

#include "support/child_process.h"
#include "support/temp_dir.h"

namespace qel::test {

// A session bus, as long as it lives; throws when it does not start. The programs that it starts get the test's
// environment with these changes.
class SessionBus {
 public:
  explicit SessionBus(decltype(ChildOptions::environment) environment = {});
  const std::string& Address() const { return address_; }

 private:
  std::unique_ptr<ChildProcess> process_;
  std::string address_;
};

// Runs a shell script, which ends at the first command that fails, on a fresh session bus and in `home`, which is its
// $HOME; `environment` changes the test's own. Returns what it printed; fails the test when it does not end with status
// 0 in a minute.
std::string RunOnSessionBus(const TempDir& home, const std::string& script,
                            decltype(ChildOptions::environment) environment);

}  // namespace qel::test
