// The host's page in a real browser, without a screen, which is driven through its debugging protocol.

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "common/unique_fd.h"
#include "host/page_server.h"
#include "session/session_test.h"

namespace qel::test {
namespace {

using Json = nlohmann::json;

// The browser's network is the test's own, where even the loopback interface is off at first.
void SwitchLoopbackOn() {
  const UniqueFd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  ASSERT_EQ(ioctl(any.Get(), SIOCSIFFLAGS, &request), 0);
}

class Browser {
 public:
  Browser() {
    int to[2];
    int from[2];
    if (pipe2(to, O_CLOEXEC) != 0 || pipe2(from, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
    const UniqueFd input(to[0]);
    const UniqueFd output(from[1]);
    to_ = UniqueFd(to[1]);
    from_ = UniqueFd(from[0]);
    // It reads requests from descriptor 3 and writes to 4. Its sandbox cannot be had within the test's namespaces.
    const std::string command =
        "exec chromium --headless=new --no-sandbox --disable-gpu --disable-dev-shm-usage --remote-debugging-pipe "
        "--user-data-dir='" +
        files_.Path().string() + "' about:blank 3<&0 4>&1 0</dev/null >/dev/null 2>&1";
    process_ = std::make_unique<ChildProcess>(ChildOptions{.arguments = {"sh", "-c", command},
                                                           .environment = {{"HOME", files_.Path().string()}},
                                                           .standard_input = input.Get(),
                                                           .standard_output = output.Get()});
    const Json targets = Call("Target.getTargets", {})["targetInfos"];
    const auto page = std::ranges::find(targets, Json("page"), [](const Json& target) { return target["type"]; });
    session_ = Call("Target.attachToTarget", {{"targetId", (*page)["targetId"]}, {"flatten", true}})["sessionId"];
    Call("Runtime.enable", Json::object());
  }

  void Open(const std::string& url) { Call("Page.navigate", {{"url", url}}); }

  // The value of an expression of JavaScript.
  Json Value(const std::string& expression) {
    const Json answer =
        Call("Runtime.evaluate", {{"expression", expression}, {"returnByValue", true}, {"awaitPromise", true}});
    return answer.contains("exceptionDetails") ? answer["exceptionDetails"] : answer["result"].value("value", Json());
  }
  bool Shows(const std::string& condition) {
    return WaitUntil([&] { return Value(condition) == true; }, kSoon);
  }
  // Presses the mouse's button over the button with this name.
  void Click(const std::string& name) {
    const std::string button =
        "[...document.querySelectorAll('button')].find(b => (b.ariaLabel || b.innerText) == " + Json(name).dump() + ")";
    ASSERT_TRUE(Shows(button + " !== undefined")) << name;
    const Json place = Value("(() => { const b = " + button +
                             "; b.scrollIntoView({block: 'center'}); const r = b.getBoundingClientRect();"
                             "return [r.x + r.width / 2, r.y + r.height / 2]; })()");
    for (const char* type : {"mousePressed", "mouseReleased"}) {
      Call("Input.dispatchMouseEvent",
           {{"type", type}, {"x", place[0]}, {"y", place[1]}, {"button", "left"}, {"clickCount", 1}});
    }
  }
  void Type(const std::string& field, const std::string& text) {
    Value("document.getElementById('" + field + "').focus()");
    Call("Input.insertText", {{"text", text}});
  }

  // Exceptions that no script has caught.
  const std::vector<std::string>& Exceptions() const { return exceptions_; }

 private:
  Json Call(const char* method, const Json& parameters) {
    Json request{{"id", ++calls_}, {"method", method}, {"params", parameters}};
    if (!session_.is_null()) request["sessionId"] = session_;
    const std::string text = request.dump();
    if (write(to_.Get(), text.c_str(), text.size() + 1) < 0) throw std::runtime_error("the browser has ended");
    for (;;) {
      const Json message = Json::parse(Message());
      if (message.value("method", "") == "Runtime.exceptionThrown") exceptions_.push_back(message.dump());
      if (message.value("id", 0) == calls_) return message.value("result", Json::object());
    }
  }
  // The next message; each ends with a zero byte.
  std::string Message() {
    std::size_t end = 0;
    while ((end = received_.find('\0')) == std::string::npos) {
      char buffer[4096];
      const ssize_t got = read(from_.Get(), buffer, sizeof buffer);
      if (got <= 0) throw std::runtime_error("the browser has ended, or chromium is not installed");
      received_.append(buffer, static_cast<std::size_t>(got));
    }
    std::string message = received_.substr(0, end);
    received_.erase(0, end + 1);
    return message;
  }

  TempDir files_;
  UniqueFd to_;
  UniqueFd from_;
  std::unique_ptr<ChildProcess> process_;
  Json session_;
  int calls_ = 0;
  std::string received_;
  std::vector<std::string> exceptions_;
};

// The titles in the taskbar, joined.
constexpr const char* kTasks = "[...document.querySelectorAll('#tasks .title')].map(t => t.textContent).join(', ')";

// The colour in the middle of the image that this selects, or nothing before it is loaded.
std::string Pixel(const std::string& selector) {
  return "(() => { const i = document.querySelector(" + Json(selector).dump() +
         "); if (!i?.complete || !i.naturalWidth) return ''; const c = "
         "document.createElement('canvas').getContext('2d');"
         "c.drawImage(i, 0, 0, 9, 9); return c.getImageData(4, 4, 1, 1).data.join(); })()";
}

TEST(PageTest, ShowsTheGuestAndSendsCommands) {
  const TempDir files;
  const std::string opened = (files.Path() / "a letter").string();
  const auto entry = [&](const char* file, const char* lines, const char* icon_file, const char* icon) {
    const std::string icon_path = files.Write(icon_file, icon).string();
    files.Write(file, std::string("[Desktop Entry]\n") + lines + "\nIcon=" + icon_path + "\n");
  };
  entry("share/applications/other.desktop", "Name=Other\nExec=true", "icon.xpm",
        R"(/* XPM */ {"1 1 1 1", "a c #FF0000", "a"};)");
  entry("share/applications/touch.desktop", "Name=<u>Touch</u>\nExec=touch %f", "icon.svg",
        "<svg xmlns='http://www.w3.org/2000/svg' width='9' height='9'><rect width='9' height='9' fill='#00f'/></svg>");
  files.Write(
      "etc/menus/applications.menu",
      "<Menu><Name>All</Name><DefaultAppDirs/><Menu><Name>Office</Name><Include><All/></Include></Menu></Menu>");
  Session session;
  SwitchLoopbackOn();
  std::string error;
  host::PageServer server(session.Host());
  ASSERT_TRUE(server.Bind({}, error)) << error;
  server.Serve();
  Browser browser;
  browser.Open(server.Url());
  EXPECT_TRUE(browser.Shows("document.getElementById('agent')?.textContent == 'none has registered'"));
  EXPECT_EQ(browser.Value("location.href").get<std::string>().find("token"), std::string::npos);

  const std::string markup = "<img src=x onerror=alert(1)>";
  std::vector<std::uint32_t> icon(2 + 32 * 32, 0xFF00FF00);
  icon[0] = icon[1] = 32;
  IdleProcess& process = session.NewProcess();
  const Window window = session.Open({.pid = process.Pid(), .title = markup, .icon = icon});
  session.StartServingAgent({"-r", "100"}, {{"XDG_CONFIG_DIRS", (files.Path() / "etc").string()},
                                            {"XDG_DATA_DIRS", (files.Path() / "share").string()},
                                            {"XDG_MENU_PREFIX", std::nullopt},
                                            {"HOME", files.Path().string()}});
  EXPECT_TRUE(browser.Shows("document.getElementById('tool').textContent == 'active'"));
  EXPECT_TRUE(browser.Shows(kTasks + (" == '" + markup + "'")));
  EXPECT_TRUE(browser.Shows(Pixel("#tasks img") + " == '0,255,0,255'"));
  const Window second = session.Open({.title = "second"});
  EXPECT_TRUE(browser.Shows(kTasks + (" == '" + markup + ", second'")));
  session.Client().SetTitle(second, "renamed");
  EXPECT_TRUE(browser.Shows(kTasks + (" == '" + markup + ", renamed'")));

  EXPECT_TRUE(browser.Shows(Pixel("#menu li:nth-child(1) img") + " == '255,0,0,255'")) << "of an XPM file";
  EXPECT_TRUE(browser.Shows(Pixel("#menu li:nth-child(2) img") + " == '0,0,255,255'")) << "of an SVG file";
  browser.Type("document", opened);
  browser.Value("document.querySelectorAll('#menu .entry')[1].focus()");
  browser.Value(
      "(s => { s.value = 'touch'; s.dispatchEvent(new Event('input')); })(document.getElementById('search'))");
  EXPECT_EQ(browser.Value("[...document.querySelectorAll('#menu .entry')].indexOf(document.activeElement)"), 0)
      << "a button keeps the focus when others before it go";
  EXPECT_EQ(browser.Value("document.querySelectorAll('#menu .entry').length"), 1);
  browser.Click("<u>Touch</u>");
  EXPECT_TRUE(WaitUntil([&] { return fs::exists(opened); }, kSoon));

  browser.Click("Hide " + markup);
  EXPECT_TRUE(browser.Shows("document.querySelector('#tasks .hidden .title')?.textContent == '" + markup + "'"));
  browser.Click("Activate " + markup);
  EXPECT_TRUE(browser.Shows("document.querySelector('#tasks .hidden') === null"));
  browser.Click("Close renamed");
  EXPECT_TRUE(WaitUntil([&] { return session.Client().WasAskedToClose(second); }, kSoon));
  session.Client().Close(second);
  EXPECT_TRUE(browser.Shows(kTasks + (" == '" + markup + "'")));
  browser.Click("Force to quit sleep");
  browser.Click("Force to quit");
  EXPECT_TRUE(WaitUntil([&] { return process.Wait(0ms).has_value(); }, kSoon));
  session.Client().Close(window);
  EXPECT_TRUE(browser.Shows("document.getElementById('tasks').children.length == 0"));

  EXPECT_THAT(browser.Value("document.getElementById('log').innerText").get<std::string>(),
              testing::AllOf(testing::HasSubstr("title “" + markup), testing::HasSubstr("hide-apps")));
  EXPECT_EQ(browser.Value("document.querySelectorAll('bdi *').length"), 0) << "titles and names are text";
  EXPECT_THAT(browser.Exceptions(), testing::IsEmpty());
  server.Stop();
  EXPECT_TRUE(browser.Shows("!document.getElementById('connection').hidden"));
}

}  // namespace
}  // namespace qel::test
