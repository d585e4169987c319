// Detection of the desktop, with a real X server and a real message bus.
#include <gtest/gtest.h>  // comes first: it cannot stand the macros of the X headers

#include "desktop/desktop_kind.h"

#include <X11/Xatom.h>

#include <filesystem>
#include <memory>

#include "support/child_process.h"
#include "support/log_capture.h"
#include "support/scoped_environment.h"
#include "support/temp_dir.h"
#include "support/x_server.h"
#include "tools_service/x_library.h"

namespace qel {
namespace {

using test::LogCapture;
using test::ScopedEnvironment;
using enum DesktopKind;

class DesktopKindTest : public testing::Test {
 protected:
  DesktopKindTest() {
    if (XLibLoad() != 0 || (display_ = x_api.XOpenDisplay(server_.Display().c_str())) == nullptr) {
      throw std::runtime_error("no X connection");
    }
  }
  ~DesktopKindTest() override { x_api.XCloseDisplay(display_); }

  void SetRootProperty(const char* name, Atom type, const std::vector<long>& items) {
    x_api.XChangeProperty(display_, XDefaultRoot(display_), x_api.XInternAtom(display_, name, False), type, 32,
                          PropModeReplace, reinterpret_cast<const unsigned char*>(items.data()),
                          static_cast<int>(items.size()));
  }
  test::TempDir dir_;
  // No variable names a desktop, and there is no bus.
  ScopedEnvironment environment_{{{"XDG_CURRENT_DESKTOP", std::nullopt},
                                  {"DESKTOP_SESSION", std::nullopt},
                                  {"KDE_FULL_SESSION", std::nullopt},
                                  {"GNOME_DESKTOP_SESSION_ID", std::nullopt},
                                  {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + (dir_.Path() / "bus").string()}}};
  test::XServer server_;
  Display* display_ = nullptr;
};

TEST_F(DesktopKindTest, EnvironmentDecidesFirst) {
  SetRootProperty("KDE_SESSION_VERSION", XA_CARDINAL, {5});  // the result unless a variable decides
  const struct {
    ScopedEnvironment::Variables variables;
    DesktopKind kind;
  } kCases[] = {
      {{{"XDG_CURRENT_DESKTOP", "Unity"}, {"DESKTOP_SESSION", "gnome"}}, kUnity},
      {{{"XDG_CURRENT_DESKTOP", "Xfce"}}, kKde},
      {{{"XDG_CURRENT_DESKTOP", "ubuntu:GNOME"}, {"DESKTOP_SESSION", "xfce"}}, kXfce},
      {{{"DESKTOP_SESSION", "gnome"}, {"KDE_FULL_SESSION", "true"}}, kGnome},
      {{{"KDE_FULL_SESSION", "true"}, {"GNOME_DESKTOP_SESSION_ID", "x"}}, kKde},
      {{{"KDE_FULL_SESSION", "TRUE"}, {"GNOME_DESKTOP_SESSION_ID", ""}}, kGnome},
  };
  for (const auto& test : kCases) {
    const ScopedEnvironment environment(test.variables);
    EXPECT_EQ(DetectDesktopKind(display_), test.kind) << testing::PrintToString(test.variables);
  }
}

TEST_F(DesktopKindTest, RootPropertiesDecideNext) {
  SetRootProperty("KDE_SESSION_VERSION", XA_CARDINAL, {5});
  EXPECT_EQ(DetectDesktopKind(display_), kKde);
  SetRootProperty("_UNITY_NET_WORKAREA_REGION", XA_CARDINAL, {0, 0, 100, 100});
  EXPECT_EQ(DetectDesktopKind(display_), kUnity);
  SetRootProperty("_UNITY_NET_WORKAREA_REGION", XA_CARDINAL, {});  // no items
  EXPECT_EQ(DetectDesktopKind(display_), kKde);
  SetRootProperty("_UNITY_NET_WORKAREA_REGION", XA_INTEGER, {1});  // wrong type
  EXPECT_EQ(DetectDesktopKind(display_), kKde);
}

TEST_F(DesktopKindTest, SystemBusDecidesLast) {
  const LogCapture log;
  EXPECT_EQ(DetectDesktopKind(display_), kUnity);
  const std::string config = dir_.Write("bus.conf", R"(<busconfig><type>system</type><auth>EXTERNAL</auth>
<listen>unix:path=)" + (dir_.Path() / "bus").string() + R"(</listen>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy></busconfig>)");
  std::unique_ptr<test::ChildProcess> bus;
  StartServer(bus, {.arguments = {"dbus-daemon", "--nofork", "--config-file=" + config, "--print-address=3"}});
  EXPECT_EQ(DetectDesktopKind(display_), kGnome);
  EXPECT_EQ(log.Texts().back(), "Gnome detected via DBus");
  EXPECT_EQ(log.Count("DBus lib unloaded"), 2) << "once after each of the two detections";
  EXPECT_EQ(log.Lines().front().module, "QelCCBase");
  EXPECT_EQ(log.Lines().back().module, "qeltdl");
  const auto open_descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const std::ptrdiff_t descriptors = open_descriptors();
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ(DetectDesktopKind(display_), kGnome);
  }
  EXPECT_EQ(open_descriptors(), descriptors);

  // When the bus ends, this process must not end too.
  bus->Kill(SIGTERM);
  ASSERT_TRUE(bus->Wait());
  DetectDesktopKind(display_);
  DetectDesktopKind(display_);
}

}  // namespace
}  // namespace qel
