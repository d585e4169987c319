#include "support/x_server.h"

#include <csignal>

namespace qel::test {

XServer::XServer(const std::vector<std::string>& extra_arguments) {
  std::signal(SIGPIPE, SIG_IGN);  // Xlib may write to a server that has ended
  ChildOptions options{
      .arguments = {"Xvfb", "-displayfd", "3", "-screen", "0", "1280x1024x24", "-ac", "-noreset", "-nolisten", "tcp"}};
  options.arguments.insert(options.arguments.end(), extra_arguments.begin(), extra_arguments.end());
  display_ = ":" + StartServer(process_, std::move(options));
}

XServer::~XServer() {
  process_->Kill(SIGTERM);
  process_->Wait();
}

void XServer::Kill() {
  process_->Kill(SIGKILL);
  process_->Wait();
}

}  // namespace qel::test
