// hypervisor-run: runs a command and answers its hypervisor calls like a hypervisor with the message channel.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "hypervisor/call_channel.h"
#include "hypervisor/tracer.h"

namespace {

constexpr const char* kHexDigits = "0123456789abcdef";

std::optional<std::vector<std::byte>> FromHex(const std::string& text) {
  if (text.size() % 2 != 0 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    return std::nullopt;
  }
  std::vector<std::byte> bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes.push_back(static_cast<std::byte>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string ToHexLine(std::span<const std::byte> bytes) {
  std::string line;
  line.reserve(bytes.size() * 2 + 1);
  for (const std::byte byte : bytes) {
    const auto value = std::to_integer<unsigned>(byte);
    line += kHexDigits[value >> 4];
    line += kHexDigits[value & 15];
  }
  return line + '\n';
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app{"Runs a command and answers its hypervisor calls. Each message is printed as one line of hex digits."};
  app.footer("COMMAND and its arguments follow the options, behind a -- where they could be taken for options.");
  app.prefix_command();
  qel::hypervisor::ChannelOptions options;
  std::string reply;
  std::string log_file;
  app.add_option("--chunk", options.chunk_size, "Most bytes of one call")->capture_default_str();
  app.add_option("--version", options.version, "Version that the channel reports")->capture_default_str();
  app.add_option("--reply", reply, "Hex digits of the reply to every message")->check([](const std::string& text) {
    return FromHex(text) ? "" : "not an even number of hex digits";
  });
  app.add_option("--state", options.state, "State that transfers end with; negative: failed")->capture_default_str();
  app.add_option("--log", log_file, "Append the lines to this file instead of standard output");
  CLI11_PARSE(app, argc, argv);
  std::vector<std::string> command = app.remaining();
  if (!command.empty() && command.front() == "--") {
    command.erase(command.begin());
  }
  if (command.empty()) {
    std::fprintf(stderr, "hypervisor-run: no command given; see --help\n");
    return 2;
  }
  options.reply = FromHex(reply).value();

  int output = STDOUT_FILENO;
  if (!log_file.empty()) {
    output = open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (output < 0) {
      std::perror(("hypervisor-run: " + log_file).c_str());
      return 1;
    }
  }
  const auto on_message = [&](std::span<const std::byte> message) {
    const std::string line = ToHexLine(message);
    if (write(output, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      std::perror("hypervisor-run: cannot write");
    }
  };
  const auto on_violation = [](const std::string& text) {
    std::fprintf(stderr, "hypervisor-run: violation: %s\n", text.c_str());
  };
  qel::hypervisor::CallChannel channel(std::move(options), on_message, on_violation);
  return qel::hypervisor::RunTraced(command, channel);
} catch (const std::exception& error) {
  std::fprintf(stderr, "hypervisor-run: %s\n", error.what());
  return 1;
}
