// The table of X functions, and the requests that are composed by hand, on a real server.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/x_server.h"
#include "tools_service/graphics_apis.h"
#include "tools_service/x_library.h"
#include "tools_service/x_requests.h"

namespace qel {
namespace {

TEST(XLibraryTest, LoadsEveryFunctionOrNone) {
  const test::LogCapture log;
  ASSERT_EQ(XLibLoad(), 0);
  ASSERT_EQ(XLibLoad(), 0);
#define QEL_X_FUNCTION(name) EXPECT_NE(x_api.name, nullptr) << #name;
#define QEL_X_INTERNAL(name) EXPECT_NE(x_api.name, nullptr) << #name;
#include "tools_service/x_functions.def"
  XLibUnload();
  XLibUnload();
#undef QEL_X_FUNCTION
#undef QEL_X_INTERNAL
#define QEL_X_FUNCTION(name) EXPECT_EQ(x_api.name, nullptr) << #name;
#define QEL_X_INTERNAL(name) EXPECT_EQ(x_api.name, nullptr) << #name;
#include "tools_service/x_functions.def"
  EXPECT_EQ(log.Count("X functions were loaded successfully"), 1);
  EXPECT_EQ(log.Count("X functions were unloaded"), 1);
}

TEST(XLibraryTest, RandR12IsWhatTheServerMakesOfIt) {
  ASSERT_EQ(XLibLoad(), 0);
  struct Case {
    std::vector<std::string> server_arguments;
    bool server;
    std::vector<std::string> texts;  // after those about the library
  };
  const Case cases[] = {
      {{}, true, {"RandR 1.2 initialized", "", "RandR12 functions were unloaded"}},
      {{"-extension", "RANDR"},
       true,
       {"RandR extension missing", "", "RandR 1.2 support missing", "", "RandR12 functions were unloaded"}},
      {{}, false, {"RandR 1.2 support missing", "", "RandR12 functions were unloaded"}},
  };
  for (const Case& row : cases) {
    test::XServer server(row.server_arguments);
    const test::ScopedDisplay display(server.Display());
    if (!row.server) {
      server.Kill();
    }
    const test::LogCapture log;
    RandR12Init();
    RandR12Init();
    RandR12Deinit();
    RandR12Deinit();
    std::vector<std::string> texts = log.Texts();
    ASSERT_GE(texts.size(), 2u);
    texts.erase(texts.begin(), texts.begin() + 2);  // one name tried, functions loaded
    EXPECT_EQ(texts, row.texts);
  }
  XLibUnload();
}

TEST(XRequestsTest, RaiseAndFocusWindows) {
  ASSERT_EQ(XLibLoad(), 0);
  const test::XServer server;
  Display* display = x_api.XOpenDisplay(server.Display().c_str());
  ASSERT_NE(display, nullptr);
  const Window root = XDefaultRoot(display);
  Window windows[2];
  for (Window& window : windows) {
    window = x_api.XCreateSimpleWindow(display, root, 0, 0, 50, 50, 0, 0, 0);
    x_api.XSelectInput(display, window, FocusChangeMask);
    x_api.XMapWindow(display, window);
  }
  x_requests::RaiseWindow(display, windows[0]);
  x_requests::SetInputFocus(display, windows[0]);
  x_requests::RoundTrip(display);

  Window same_root = None;
  Window parent = None;
  Window* children = nullptr;
  unsigned count = 0;
  ASSERT_NE(x_api.XQueryTree(display, root, &same_root, &parent, &children, &count), 0);
  ASSERT_EQ(count, 2u);
  EXPECT_EQ(children[1], windows[0]) << "the last child is on top";
  x_api.XFree(children);
  XEvent event;
  EXPECT_TRUE(x_api.XCheckTypedEvent(display, FocusIn, &event));
  EXPECT_EQ(event.xfocus.window, windows[0]);
  x_api.XCloseDisplay(display);
  XLibUnload();
}

}  // namespace
}  // namespace qel
