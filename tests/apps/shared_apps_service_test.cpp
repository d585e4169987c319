#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "apps/shared_apps_service.h"

#include <string>
#include <vector>

#include "apps/process_identity.h"
#include "apps/window_property.h"
#include "support/log_capture.h"
#include "support/wait_until.h"
#include "test_desktop.h"

namespace qel::test {
namespace {

using Messages = std::vector<std::string>;

// The service on a connection of its own, driven as the framework drives it.
class ServiceHarness {
 public:
  explicit ServiceHarness(const TestDesktop& desktop, bool device_is_open = true)
      : agent(desktop),
        service(
            agent.guest_commands, {agent.registry, requests, agent.launched, agent.entries, agent.icon_themes},
            device_is_open ? [] { return true; } : [] { return false; }) {
    context.display = agent.Connection();
  }

  bool Init() { return service.Descriptor().init(context); }
  bool Stop() { return service.Descriptor().stop(context); }
  // Polls until the condition holds; the window manager takes its time.
  bool PollUntil(const std::function<bool()>& condition) {
    return WaitUntil([&] {
      XSync(agent.Connection(), False);
      while (XPending(agent.Connection()) > 0) {
        XEvent event;
        XNextEvent(agent.Connection(), &event);
        service.Descriptor().event(context, &event);
      }
      service.Descriptor().poll(context);
      return condition();
    });
  }

  TestAgent agent;
  WindowRequestQueue requests;
  SharedAppsService service;
  ServiceContext context{.connection_type = kConnectionX11, .control_extension_opcode = -1};
};

TEST(SharedAppsService, ReportsInOrderAndOnlyOncePerProcessLife) {
  TestDesktop desktop;
  const Window window = desktop.Make();
  const std::string name = BaseName(ExecutablePath(getpid()));
  ServiceHarness harness(desktop);
  EXPECT_STREQ(harness.service.Descriptor().name, "Tandrel");
  ASSERT_TRUE(harness.Init());
  EXPECT_EQ(harness.agent.TakeMessages(), (Messages{"ready", "menu", Added(window, name, name), "enumerated"}));
  EXPECT_TRUE(harness.Stop());
  EXPECT_TRUE(harness.Stop());
  ASSERT_TRUE(harness.Init());
  EXPECT_EQ(harness.agent.TakeMessages(), (Messages{"not ready", "not ready", "ready", "menu", "enumerated"}));
  harness.agent.registry.ClearRegistry();
  harness.requests.QueueWindowRequest(ReenumerateRequest{});
  harness.service.Descriptor().poll(harness.context);
  EXPECT_EQ(harness.agent.TakeMessages(), (Messages{Added(window, name, name), "enumerated"}));
}

TEST(SharedAppsService, StartsOnlyWhereItCanServe) {
  TestDesktop desktop;
  LogCapture log;
  ServiceHarness wayland(desktop);
  wayland.context.connection_type = kConnectionWayland;
  EXPECT_FALSE(wayland.Init());
  EXPECT_FALSE(wayland.Stop());
  EXPECT_EQ(log.Texts(), Messages{});
  ServiceHarness deviceless(desktop, false);
  EXPECT_FALSE(deviceless.Init());
  ServiceHarness unconnected(desktop);
  unconnected.context.control_extension_opcode = 0;
  EXPECT_FALSE(unconnected.Init());
  EXPECT_EQ(log.Texts(), (Messages{"Error: Can't initialize", "Error: Can't initialize"}));
}

TEST(SharedAppsService, NamesEveryAtomThatTheServerLacks) {
  XServer bare_server;
  const XConnection connection(bare_server.Display());
  const LogCapture log;
  Session session;
  session.display = connection;
  EXPECT_FALSE(InternSessionAtoms(session));
  EXPECT_EQ(log.Texts().size(), 14u) << "all but the predefined WM_CLASS";
  EXPECT_EQ(log.Texts().back(), "Error: Can't initialize atom _NET_WM_WINDOW_TYPE");
  for (const WindowTypeRow& row : session.window_types) {
    const bool only_if_it_exists = &row == &session.window_types.front();
    XInternAtom(connection, row.name, only_if_it_exists ? True : False);
  }
  EXPECT_FALSE(InternWindowTypes(session));
  EXPECT_EQ(log.Texts().size(), 15u);
  EXPECT_EQ(log.Texts().back(), "Error: Can't initialize atom _NET_WM_WINDOW_TYPE_DESKTOP");
  EXPECT_EQ(session.window_types[kWindowTypeNormal].atom, XInternAtom(connection, "_NET_WM_WINDOW_TYPE_NORMAL", True));
}

TEST(SharedAppsService, HasTheWindowManagerActOnTheClient) {
  TestDesktop desktop;
  ChildOptions options;
  options.arguments = {"openbox", "--sm-disable"};
  options.environment = {{"DISPLAY", desktop.Name()}};
  const ChildProcess window_manager(options);
  const Window root = DefaultRootWindow(desktop.Connection());
  ServiceHarness harness(desktop);
  const Session& session = harness.agent.GetSession();
  const auto root_names = [&](const char* property) {
    const WindowProperty value(session, root, desktop.AtomOf(property), AnyPropertyType, WindowProperty::kAll);
    return value.ItemCount() > 0 ? Window{value.Item(value.ItemCount() - 1)} : None;
  };
  const auto wm_state = [&](Window window) {
    const WindowProperty value(session, window, session.atoms.wm_state, AnyPropertyType, WindowProperty::kAll);
    return value.ItemCount() > 0 ? value.Item(0) : 0;
  };
  ASSERT_TRUE(WaitUntil([&] { return root_names("_NET_SUPPORTING_WM_CHECK") != None; }));
  ASSERT_TRUE(harness.Init());
  harness.agent.TakeMessages();

  // Both windows come into frames, and the second covers the first. A window manager that is still starting up loses
  // requests to map a window.
  const auto show = [&] {
    const Window window = desktop.Make({.mapped = false, .listed = false});
    EXPECT_TRUE(WaitUntil([&] {
      XMapWindow(desktop.Connection(), window);
      desktop.Sync();
      return root_names("_NET_CLIENT_LIST") == window && root_names("_NET_ACTIVE_WINDOW") == window;
    }));
    return window;
  };
  const Window first = show();
  const Window second = show();
  Atom protocol = desktop.AtomOf("WM_DELETE_WINDOW");
  XSetWMProtocols(desktop.Connection(), first, &protocol, 1);
  ASSERT_TRUE(harness.PollUntil([&] { return harness.agent.TakeMessages().size() == 2; }));
  const WindowPairSet windows = harness.agent.registry.Lock()->at(getpid());
  const auto pair = windows.find({0, static_cast<WindowId>(first)});
  ASSERT_NE(pair->toplevel, first);

  harness.requests.QueueWindowRequest(ActivateRequest{pair->toplevel});
  EXPECT_TRUE(harness.PollUntil(
      [&] { return root_names("_NET_ACTIVE_WINDOW") == first && root_names("_NET_CLIENT_LIST_STACKING") == first; }));
  harness.requests.QueueWindowRequest(MinimizeRequest{pair->toplevel});
  EXPECT_TRUE(harness.PollUntil([&] { return wm_state(first) == IconicState; }));
  EXPECT_EQ(wm_state(second), static_cast<std::uint32_t>(NormalState));

  harness.requests.QueueWindowRequest(CloseRequest{{*pair}});
  XEvent event;
  ASSERT_TRUE(harness.PollUntil(
      [&] { return XCheckTypedWindowEvent(desktop.Connection(), first, ClientMessage, &event) != 0; }));
  EXPECT_EQ(event.xclient.message_type, session.atoms.wm_protocols);
  EXPECT_EQ(static_cast<Atom>(event.xclient.data.l[0]), protocol);
  harness.agent.TakeMessages();
  desktop.Destroy(first);
  EXPECT_TRUE(harness.PollUntil([&] { return harness.agent.TakeMessages() == Messages{Removed(pair->toplevel)}; }));
}

}  // namespace
}  // namespace qel::test
