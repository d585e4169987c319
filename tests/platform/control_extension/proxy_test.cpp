// The proxy program between a real X server and a client that composes the bytes of the protocol itself. The session
// tests use the proxy with Xlib.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "control_extension/proxy.h"
#include "support/child_process.h"
#include "support/wait_until.h"
#include "support/x_server.h"

namespace qel::control_extension {
namespace {

class Client {
 public:
  explicit Client(const std::string& display) : connection_(ConnectToDisplay(DisplayNumber(display))) {
    fcntl(connection_.Get(), F_SETFL, 0);
    const Bytes setup = Ask({'l', 0, 11, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 8);
    EXPECT_EQ(setup[0], 1) << "the server refuses the connection";
    Ask({}, (setup[6] + setup[7] * 256U) * 4);
  }

  Bytes Ask(const Bytes& request, std::size_t answer_size = 32) const {
    EXPECT_EQ(send(connection_.Get(), request.data(), request.size(), MSG_NOSIGNAL), std::ssize(request));
    Bytes answer(answer_size);
    EXPECT_EQ(recv(connection_.Get(), answer.data(), answer_size, MSG_WAITALL), std::ssize(answer));
    return answer;
  }

 private:
  UniqueFd connection_;
};

TEST(ProxyProgram, AddsTheExtensionToARealServer) {
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
  const std::string display = ":" + std::to_string(std::atoi(number));
  const Client client(display);
  const std::string query("b\0\6\0\20\0\0\0CorvessanControl", 24);
  const Bytes question(query.begin(), query.end());
  EXPECT_EQ(Client(server.Display()).Ask(question)[8], 0);
  EXPECT_EQ(client.Ask(question)[9], kMajorOpcode);
  const Bytes shm{98, 0, 4, 0, 7, 0, 0, 0, 'M', 'I', 'T', '-', 'S', 'H', 'M', 0};
  EXPECT_EQ(Client(server.Display()).Ask(shm)[8], 1);
  EXPECT_EQ(client.Ask(shm)[8], 0) << "the proxy cannot forward the descriptors of MIT-SHM";

  const auto is_on_console = [&] { return client.Ask({kMajorOpcode, 28, 1, 0})[8] == 1; };
  const auto is_granted = [&] { return client.Ask({kMajorOpcode, 29, 2, 0, 0xE8, 3, 0, 0})[8] == 1; };
  EXPECT_FALSE(is_on_console());
  EXPECT_TRUE(is_granted());
  ASSERT_EQ(write(commands.Get(), "bogus\ngrant off\nconsole on\n", 27), 27);
  EXPECT_TRUE(test::WaitUntil(is_on_console));
  EXPECT_FALSE(is_granted());
  Bytes many;  // many requests without a reply, then one with a reply
  for (int i = 0; i < 70'000; ++i) many.insert(many.end(), {127, 0, 1, 0});
  many.insert(many.end(), question.begin(), question.end());
  EXPECT_EQ(client.Ask(many)[9], kMajorOpcode) << "sequence numbers have 16 bits and wrap around";
  commands = UniqueFd();
  EXPECT_EQ(program.Wait().value_or(test::ChildStatus{}).exit_code, 0);
  EXPECT_NE(access(("/tmp/.X11-unix/X" + display.substr(1)).c_str(), F_OK), 0) << "the socket still exists";
}

}  // namespace
}  // namespace qel::control_extension
