// control-extension-proxy: the proxy as a program, controlled by lines on its standard input.
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <iostream>
#include <map>
#include <string>

#include "control_extension/proxy.h"

namespace {

using qel::control_extension::Proxy;

constexpr const char* kCommands =
    "Commands on standard input, one a line; its end ends the program:\n"
    "  console on|off   whether the session is on the graphical console\n"
    "  grant on|off     whether a claim of the user session is granted\n";

// Writes the display number and a newline, like X servers do for their option -displayfd.
bool ReportDisplay(int descriptor, const Proxy& proxy) {
  return dprintf(descriptor, "%s\n", proxy.Display().c_str() + 1) > 0;
}

bool Execute(Proxy& proxy, const std::string& line) {
  auto& state = proxy.State();
  const std::map<std::string, std::function<void()>> commands = {
      {"console on", [&] { state.console_active = true; }},
      {"console off", [&] { state.console_active = false; }},
      {"grant on", [&] { state.grant = true; }},
      {"grant off", [&] { state.grant = false; }},
  };
  const auto command = commands.find(line);
  if (command == commands.end()) {
    return false;
  }
  command->second();
  return true;
}

void ExecuteLines(Proxy& proxy, std::string& input) {
  for (std::size_t end = input.find('\n'); end != std::string::npos; end = input.find('\n')) {
    const std::string line = input.substr(0, end);
    input.erase(0, end + 1);
    if (!line.empty() && !Execute(proxy, line)) {
      std::cerr << "control-extension-proxy: unknown command: " << line << "\n";
    }
  }
}

// Returns at the end of the input or when a signal of `stop_signals` arrives.
void ServeInput(Proxy& proxy, const sigset_t& stop_signals) {
  const qel::UniqueFd signals(signalfd(-1, &stop_signals, SFD_CLOEXEC));
  std::string input;
  while (true) {
    std::array<pollfd, 2> set{pollfd{STDIN_FILENO, POLLIN, 0}, pollfd{signals.Get(), POLLIN, 0}};
    if (poll(set.data(), set.size(), -1) < 0) {
      continue;
    }
    if (set[1].revents != 0) {
      return;
    }
    std::array<char, 512> buffer;
    const ssize_t count = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count <= 0) {
      return;
    }
    input.append(buffer.data(), static_cast<std::size_t>(count));
    ExecuteLines(proxy, input);
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Serves an X display that forwards to another and adds the extension \"CorvessanControl\".",
               "control-extension-proxy");
  std::string server;
  int display_descriptor = STDOUT_FILENO;
  bool console_off = false;
  bool grant_off = false;
  app.add_option("--server", server, "The display to forward to, as :N")->required();
  app.add_option("--display-fd", display_descriptor, "Where to write the number of the new display")
      ->capture_default_str();
  app.add_flag("--console-off", console_off, "Begin with the console inactive");
  app.add_flag("--grant-off", grant_off, "Begin with claims refused");
  app.footer(kCommands);
  CLI11_PARSE(app, argc, argv);
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
  try {
    Proxy proxy(server);
    proxy.State().console_active = !console_off;
    proxy.State().grant = !grant_off;
    if (!ReportDisplay(display_descriptor, proxy)) {
      std::cerr << "control-extension-proxy: cannot write to descriptor " << display_descriptor << "\n";
      return 1;
    }
    ServeInput(proxy, stop_signals);
  } catch (const std::exception& error) {
    std::cerr << "control-extension-proxy: " << error.what() << "\n";
    return 1;
  }
  return 0;
}
