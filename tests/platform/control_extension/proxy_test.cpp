// The proxy between real clients and a real server.
#include "control_extension/proxy.h"

#include <fcntl.h>
#include <gtest/gtest.h>  // before Xlib.h, whose macros it does not bear
#include <sys/socket.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/wait_until.h"
#include "support/x_server.h"

namespace qel::control_extension {
namespace {

struct DisplayCloser {
  void operator()(Display* display) const { XCloseDisplay(display); }
};
using Client = std::unique_ptr<Display, DisplayCloser>;

Client Connect(const std::string& display) {
  return Client(XOpenDisplay(display.c_str()));
}

int OpcodeOf(Display* display, const char* extension) {
  int opcode = -1;
  int ignored = -1;
  return XQueryExtension(display, extension, &opcode, &ignored, &ignored) != 0 ? opcode : -1;
}

TEST(ProxyTest, AddsTheExtensionToARealServer) {
  const test::XServer server;
  Proxy proxy(server.Display());
  const Client direct = Connect(server.Display());
  EXPECT_EQ(OpcodeOf(direct.get(), "CorvessanControl"), -1);

  // Several clients, each with large requests and replies (a property of 3 MB) between its questions, and with more
  // requests than there are sequence numbers.
  const Client clients[] = {Connect(proxy.Display()), Connect(proxy.Display()), Connect(proxy.Display())};
  const std::string content(3'000'000, 'p');
  for (const Client& client : clients) {
    Display* display = client.get();
    ASSERT_NE(display, nullptr);
    for (int i = 0; i < 70'000; ++i) {
      XNoOp(display);
    }
    EXPECT_EQ(OpcodeOf(display, "RANDR"), OpcodeOf(direct.get(), "RANDR"));
    EXPECT_EQ(OpcodeOf(display, "DRI3"), -1);
    EXPECT_EQ(OpcodeOf(display, "CorvessanControl"), kMajorOpcode);
    const Window root = DefaultRootWindow(display);
    const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
    XChangeProperty(display, root, XA_CUT_BUFFER0, XA_STRING, 8, PropModeReplace, bytes,
                    static_cast<int>(content.size()));
    int size = 0;
    char* data = XFetchBytes(display, &size);
    EXPECT_EQ(std::string(data, static_cast<std::size_t>(size)), content);
    XFree(data);
  }
}

TEST(ProxyTest, SurvivesClientsThatVanishAndThatDoNotRead) {
  const test::XServer server;
  const Proxy proxy(server.Display());
  const int number = DisplayNumber(proxy.Display());
  {
    const UniqueFd silent = ConnectToDisplay(number);
    const UniqueFd half = ConnectToDisplay(number);
    ASSERT_EQ(send(half.Get(), "l\0\v", 3, 0), 3);
    // Asks for more than every buffer on the way holds, and never reads.
    const UniqueFd greedy = ConnectToDisplay(number);
    Bytes requests = {'l', 0, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    while (requests.size() < 16'000'000) {
      requests.insert(requests.end(), {99, 0, 1, 0});  // ListExtensions
    }
    EXPECT_TRUE(test::WaitUntil([&] {
      const ssize_t sent = send(greedy.Get(), requests.data(), requests.size(), MSG_NOSIGNAL);
      if (sent > 0) {
        requests.erase(requests.begin(), requests.begin() + sent);
      }
      return sent < 0 && errno == EAGAIN;
    }));
    EXPECT_NE(Connect(proxy.Display()), nullptr) << "one client holds up the others";
  }
  EXPECT_NE(Connect(proxy.Display()), nullptr);
}

TEST(ProxyTest, ClosesItsClientsWhenTheServerEnds) {
  test::XServer server;
  const Proxy proxy(server.Display());
  const UniqueFd client = ConnectToDisplay(DisplayNumber(proxy.Display()));
  constexpr std::uint8_t kSetup[12] = {'l', 0, 11};
  ASSERT_EQ(send(client.Get(), kSetup, sizeof kSetup, 0), 12);
  std::array<std::uint8_t, 65536> answer;
  pollfd entry{client.Get(), POLLIN, 0};
  ASSERT_EQ(poll(&entry, 1, 10'000), 1);
  ASSERT_GT(recv(client.Get(), answer.data(), answer.size(), 0), 0);
  EXPECT_EQ(answer[0], 1) << "not accepted";
  server.Kill();
  EXPECT_TRUE(test::WaitUntil([&] { return recv(client.Get(), answer.data(), answer.size(), 0) == 0; }));
  EXPECT_EQ(Connect(proxy.Display()), nullptr);
}

TEST(ProxyTest, ProgramSaysItsDisplayAndTakesCommands) {
  const test::XServer server;
  int input[2];
  int output[2];
  ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(output, O_CLOEXEC), 0);
  UniqueFd commands(input[1]);
  const UniqueFd answers(output[0]);
  test::ChildProcess program({.arguments = {QEL_PROXY_PROGRAM, "--server", server.Display(), "--console-off"},
                              .standard_input = input[0],
                              .standard_output = output[1]});
  close(input[0]);
  close(output[1]);
  char number[16] = "";
  ASSERT_GT(read(answers.Get(), number, sizeof number - 1), 1);
  std::string display = ":" + std::string(number);
  display.pop_back();
  EXPECT_NE(Connect(display), nullptr);
  ASSERT_EQ(write(commands.Get(), "grant off\nconsole", 17), 17);
  commands = UniqueFd();
  const auto status = program.Wait();
  ASSERT_TRUE(status);
  EXPECT_EQ(status->exit_code, 0);
  EXPECT_NE(access(("/tmp/.X11-unix/X" + display.substr(1)).c_str(), F_OK), 0) << "the socket was left behind";
}

}  // namespace
}  // namespace qel::control_extension
