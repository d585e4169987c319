// Serves the page that shows a host's model in a browser and sends commands to the agent.
#pragma once

#include <memory>
#include <string>

#include "host/host.h"
#include "host/page_access.h"

namespace qel::host {

// Nothing is served to requests without the secret token of Url(). One thread may use it; its own threads use only the
// host, which must outlive it.
class PageServer {
 public:
  explicit PageServer(Host& host);
  ~PageServer();  // stops
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;

  // Takes the address. Returns false, with the reason in `error`, if that is not possible.
  bool Bind(const PageAddress& address, std::string& error);
  // The address with the token, for the user's browser. After Bind().
  std::string Url() const;
  // Serves on threads of its own until Stop(). After Bind(), and after the start of programs, which would inherit the
  // connections.
  void Serve();
  // Ends all connections and threads, within a second.
  void Stop();

 private:
  class Implementation;
  std::unique_ptr<Implementation> implementation_;
};

}  // namespace qel::host
