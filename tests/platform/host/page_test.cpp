// Who is served a page, what it may ask for, and what bad clients can do. tests/session/page_test.cpp shows the page in
// a browser.
#include "host/page_server.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include "common/unique_fd.h"
#include "host/xpm_image.h"
#include "support/wait_until.h"

namespace qel::host {
namespace {

using httplib::Headers;

class PageTest : public testing::Test {
 protected:
  PageTest() {
    std::string error;
    EXPECT_TRUE(server_.Bind({}, error)) << error;
    server_.Serve();
    const std::string url = server_.Url();
    const std::size_t path = url.find("/?");
    site_ = url.substr(0, path);
    token_path_ = url.substr(path);
    httplib::Client client(site_);
    const auto welcome = client.Get(token_path_);
    EXPECT_EQ(welcome->status, 200);
    const std::string cookie = welcome->get_header_value("Set-Cookie");
    EXPECT_THAT(cookie, testing::HasSubstr("HttpOnly; SameSite=Strict"));
    cookie_ = cookie.substr(0, cookie.find(';'));
    base_ = welcome->get_header_value("Refresh").substr(std::string("0; url=").size());
  }

  Host host_;
  PageServer server_{host_};
  std::string site_;
  std::string token_path_;
  std::string cookie_;
  std::string base_;
};

TEST_F(PageTest, ServesOnlyItsUserAndItsOwnPage) {
  const std::string own = site_.substr(std::string("http://").size());
  const std::string port = own.substr(own.find(':'));
  const std::string command = base_ + "command";
  std::string wrong = token_path_;
  wrong.back() = wrong.back() == '0' ? '1' : '0';
  const Headers cookie{{"Cookie", cookie_}};
  const auto with = [&](const char* name, const std::string& value) {
    return Headers{{"Cookie", cookie_}, {name, value}};
  };
  const struct {
    const char* what;
    std::string path;
    Headers headers;
    int status;
    std::string body{};  // of a command; empty: a request for a page
    const char* type = "application/json";
  } cases[] = {
      {"the token at another name of the machine", token_path_, {{"Host", "localhost" + port}}, 200},
      {"a link to it", token_path_, {{"Sec-Fetch-Site", "cross-site"}}, 200},
      {"a wrong token", wrong, {}, 403},
      {"half of the token", token_path_.substr(0, 20), {}, 403},
      {"no token, even with the cookie", "/", cookie, 403},
      {"a name that leads here", token_path_, {{"Host", "evil.example" + port}}, 403},
      {"the page", base_, {{"Cookie", "a=b; " + cookie_}}, 200},
      {"without a cookie", base_, {}, 403},
      {"without a cookie, of anything", "/favicon.ico", {}, 403},
      {"with a wrong cookie", base_ + "page.js", {{"Cookie", "tdlhost=0"}}, 403},
      {"the page by a name", base_, with("Host", "evil.example"), 403},
      {"for a page of another port", base_ + "page.js", with("Sec-Fetch-Site", "same-site"), 403},
      {"an unknown icon", base_ + "icon/1", cookie, 404},
      {"its own command", command, with("Origin", site_), 200, R"({"do": "reset"})"},
      {"another port's command", command, with("Origin", "http://127.0.0.1:1"), 403, R"({"do": "reset"})"},
      {"nobody's command", command, cookie, 403, R"({"do": "reset"})"},
      {"a form's command", command, with("Origin", site_), 415, R"({"do": "reset"})", "text/plain"},
      {"not JSON", command, with("Origin", site_), 400, "{"},
      {"not known", command, with("Origin", site_), 400, R"({"do": 5})"},
      {"no application", command, with("Origin", site_), 400, R"({"do": "quit", "pid": 1, "force": true})"},
      {"not in the menu", command, with("Origin", site_), 400, R"({"do": "start", "path": "/bin/true"})"},
      {"too long", command, with("Origin", site_), 413, std::string(100'000, ' ')},
  };
  for (const auto& [what, path, headers, status, body, type] : cases) {
    httplib::Client client(site_);
    const auto result = body.empty() ? client.Get(path, headers) : client.Post(path, headers, body, type);
    ASSERT_TRUE(result) << what;
    EXPECT_EQ(result->status, status) << what;
    EXPECT_THAT(result->get_header_value("Content-Security-Policy"), testing::StartsWith("default-src 'none'"));
  }
  EXPECT_EQ(host_.CommandsWaiting(), 1u);
}

// Clients that say nothing, and pages that are left open, hold up neither others nor the end.
TEST_F(PageTest, BadClientsCostLittle) {
  std::vector<UniqueFd> clients;
  const auto send = [&](const std::string& request) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(site_.substr(site_.rfind(':') + 1))));
    UniqueFd& client = clients.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_GE(write(client.Get(), request.data(), request.size()), 0);
  };
  // The status of the answer.
  const auto stream = [&] {
    send("GET " + base_ + "events HTTP/1.1\r\nHost: localhost\r\nCookie: " + cookie_ + "\r\n\r\n");
    std::string answer(12, ' ');
    recv(clients.back().Get(), answer.data(), answer.size(), MSG_WAITALL);
    if (!answer.ends_with("200")) clients.pop_back();
    return answer.substr(9);
  };
  for (int i = 0; i < 8; ++i) EXPECT_EQ(stream(), "200");
  EXPECT_EQ(stream(), "503");
  clients.clear();
  EXPECT_TRUE(test::WaitUntil([&] { return stream() == "200"; })) << "a page was closed, so another may be opened";
  send("GET /");
  const std::string endless(64 << 10, 'a');
  std::size_t sent = 0;
  while (sent < 256u << 20 && ::send(clients.back().Get(), endless.data(), endless.size(), MSG_NOSIGNAL) > 0) {
    sent += endless.size();
  }
  EXPECT_LT(sent, 256u << 20) << "a request without an end";
  for (int i = 0; i < 40; ++i) send(i % 2 == 0 ? "" : "GET / HTTP/1.1\r\n");
  const auto begin = std::chrono::steady_clock::now();
  server_.Stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(4));
}

TEST(XpmTest, ReadsColoursAndRefusesDamagedFiles) {
  const std::string head = "/* XPM */ static char* a[] = {\"2 1 2 1\", \"a c #F0f\", ";
  const auto pixels = ReadXpm(head + "\". s x m white c None\", \"a.\"};");
  ASSERT_TRUE(pixels);
  EXPECT_EQ(LoadU32(pixels->bytes, 0), 0xFFFF00FFu);
  EXPECT_EQ(LoadU32(pixels->bytes, 4), 0u);
  EXPECT_EQ(LoadU32(ReadXpm("\"1 1 1 2\" \"ab c #12FF80FFFFFF\" \"ab\"")->bytes, 0), 0xFF1280FFu);
  for (const char* damaged : {"", "\"", "\"2 1 2\"", "\"0 1 1 1\" \"a c #000\" \"a\"", "\"1 1 99999999999 1\" \"a\"",
                              "\"3 1 1 1\" \"a c #000\" \"a\"", "\"1 1 1 1\" \"a c #000\" \"b\"",
                              "\"1 1 1 2\" \"a\" \"aa\"", "\"1 2 1 1\" \"a c #000\" \"a\" \"a"}) {
    EXPECT_FALSE(ReadXpm(damaged)) << damaged;
  }
}

}  // namespace
}  // namespace qel::host
