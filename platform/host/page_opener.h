// Opens the page in the user's browser.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace qel::host {

// Starts a process that waits for the address. It is to be made before EnterPrivateMountNamespace(): a browser started
// inside would run in the guest's namespaces.
class PageOpener {
 public:
  PageOpener();
  // Opens the address if there is a desktop. Root gets no browser, which would run with all rights.
  void Open(const std::string& url);

 private:
  UniqueFd address_;
};

}  // namespace qel::host
