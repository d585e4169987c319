// A menu, entries and icons that change while they are read, and files that are none.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "attack/attack.h"
#include "control_extension/proxy.h"

namespace qel::test {
namespace {

constexpr const char* kMenu =
    "<Menu><Name>Applications</Name><DefaultAppDirs/><DefaultDirectoryDirs/><DefaultMergeDirs/>"
    "<MergeFile>deep/0</MergeFile><MergeDir>.</MergeDir><MergeFile>applications.menu</MergeFile><MergeFile>../etc/"
    "menus/0</MergeFile>"
    "<Include><All/></Include></Menu>";

// From the agent, which runs as an ordinary user. Mounted before the host's device, which lies below.
struct ProcessesHidden {
  ProcessesHidden() : is_mounted(mount("proc", "/proc", "proc", 0, "hidepid=2") == 0) {}
  ~ProcessesHidden() {
    if (is_mounted) {
      umount2("/proc", MNT_DETACH);
    }
  }
  const bool is_mounted;
};

class FilesAttack : protected ProcessesHidden, public AttackTest {
 protected:
  FilesAttack() : proxy_(session_.Server().Display()) { fs::permissions(files_.Path(), fs::perms(0755)); }

  // As it is before and after the attack.
  void MakeTree() {
    for (const auto& entry : fs::directory_iterator(files_.Path())) {
      fs::remove_all(entry.path());
    }
    files_.Write("etc/menus/applications.menu", kMenu);
    // A chain of files, the last of which is nested as deeply as a file may be: what the stack must hold.
    for (int i = 0; i < 60; ++i) {
      files_.Write("etc/menus/deep/" + std::to_string(i), "<Menu><Name>a</Name><Menu><Name>b</Name><MergeFile>" +
                                                              std::to_string(i + 1) + "</MergeFile></Menu></Menu>");
    }
    std::string nested = "<All/>";
    for (int depth = 0; depth < 200; ++depth) {
      nested = "<And>" + nested + "</And>";
    }
    nested = "<Include>" + nested + "</Include>";
    for (int depth = 0; depth < 50; ++depth) {
      nested = "<Menu><Name>c</Name>" + nested + "</Menu>";
    }
    files_.Write("etc/menus/deep/60", nested);
    files_.Write("share/icons/hicolor/index.theme", "[Icon Theme]\n");
    for (const char* folder : {"share/applications", "share/icons/hicolor/48x48/apps"}) {
      fs::create_directories(files_.Path() / folder);
    }
  }

  // One random change of a random file of the tree.
  void Change();
  std::string AnyFile() {
    constexpr const char* kFolders[] = {"etc/menus/", "share/applications/", "share/icons/",
                                        "share/icons/hicolor/48x48/apps/"};
    constexpr const char* kEnds[] = {".desktop", ".desktop", ".png", ".menu", "/index.theme"};
    return files_.Path() / (kFolders[Random(4)] + std::to_string(Random(15)) + kEnds[Random(5)]);
  }

  // The session loses the console and gets it back: the menu is read anew.
  void ReadAnew() {
    const std::uint64_t finished = session_.Count(MessageKind::kFinishEnum);
    proxy_.State().console_active = false;
    EXPECT_TRUE(session_.WaitFor([](const host::ModelState& state) { return state.tool_active == false; }));
    proxy_.State().console_active = true;
    EXPECT_TRUE(session_.WaitForCount(MessageKind::kFinishEnum, finished + 1));
  }

  TempDir files_;
  control_extension::Proxy proxy_;
};

void FilesAttack::Change() {
  std::error_code ignored;
  const std::string file = AnyFile();
  const std::string other = AnyFile();
  // The file may be a FIFO by now, for which nobody may wait.
  const auto write = [](const std::string& path, const std::string& content) {
    const int opened = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666);
    [[maybe_unused]] const ssize_t written = ::write(opened, content.data(), content.size());
    close(opened);
  };
  switch (Random(11)) {
    case 0:
    case 1:
      write(file, "[Desktop Entry]\nName=n\nExec=/bin/true %U\nIcon=" + std::to_string(Random(15)) +
                      "\nCategories=Office;\n");
      break;
    case 2:
      write(file, RandomBytes(Random(30'000)));
      break;
    case 3:
      write(file, std::string(kMenu).substr(Random(100)));
      break;
    case 4:
      fs::remove_all(file, ignored);
      break;
    case 5:
      fs::rename(file, other, ignored);
      break;
    case 6:
      fs::create_symlink(other, file, ignored);
      break;
    case 7:
      fs::create_symlink(fs::path(file).parent_path(), file, ignored);  // a circle
      break;
    case 8:
      mknod(file.c_str(), (Random(2) == 0 ? S_IFIFO : S_IFSOCK) | 0666, 0);
      break;
    case 9:
      fs::permissions(file, fs::perms::none, fs::perm_options::nofollow, ignored);
      break;
    default:
      fs::create_directories(file, ignored);
      break;
  }
}

TEST_F(FilesAttack, ChangesWhileTheyAreRead) {
  MakeTree();
  const auto user = AsOrdinaryUser();
  if (user.empty() || !is_mounted) {
    std::puts("LEFT OUT: an ordinary user, from whom processes are hidden");
  }
  Start({{"XDG_CONFIG_DIRS", files_.Path() / "etc"},
         {"XDG_DATA_DIRS", files_.Path() / "share"},
         {"XDG_MENU_PREFIX", std::nullopt},
         {"XDG_CURRENT_DESKTOP", "XFCE"},
         {"HOME", files_.Path() / "home"}},
        user, proxy_.Display());
  IdleProcess& process = session_.NewProcess();
  session_.Host().Send(host::QuitCommand(static_cast<std::uint32_t>(process.Pid()), host::Force::kYes));
  for (int i = 0; i < Scaled(2); ++i) {
    std::jthread churn([this](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        for (int change = 0; change < 20; ++change) {
          Change();
        }
        std::this_thread::sleep_for(1ms);
      }
    });
    ReadAnew();
    const std::string name = std::to_string(i % 15);
    session_.Host().Send(*host::StartCommand(host::StartLayout::kFields,
                                             files_.Path() / ("share/applications/" + name + ".desktop"), {"a", "b"}));
    for (int window = 0; window < 15; ++window) {
      const std::string both = std::to_string(window) + '\0' + std::to_string(window);
      session_.Client().Close(session_.Open({.title = "has an entry", .window_class = both}));
    }
  }
  EXPECT_EQ(process.Wait(0ms).has_value(), user.empty()) << "who may end it";
  MakeTree();
  ReadAnew();
  EXPECT_TRUE(LogContains("Error: Failed to parse XML")) << "nothing of it was read";
}

}  // namespace
}  // namespace qel::test
