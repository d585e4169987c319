// Loads the applications menu like the agent, but without a display and a host. Prints its content, and the reasons why
// applications are not in it.

#include <getopt.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>

#include "log/log.h"
#include "tools/menu_report.h"

namespace {

constexpr const char* kUsage =
    "Usage: qel-menu-check [OPTION]... [ID]...\n"
    "Prints the applications menu that the agent would send, or what becomes of the desktop entries named ID.\n"
    "\n"
    "  -d, --desktop=NAME  the desktop: unity, gnome, kde, xfce or lxde (default: from XDG_CURRENT_DESKTOP)\n"
    "  -a, --absent        also the entries that no menu holds, and why\n"
    "  -j, --json          everything as a JSON array\n"
    "  -h, --help          this text\n"
    "\n"
    "XDG_CONFIG_DIRS, XDG_DATA_DIRS and XDG_MENU_PREFIX are used as the agent uses them. Messages of the loader go to\n"
    "standard error. The exit status is 0, 1 when the menu is empty, or 2 after a mistake in the options.\n";

// `compare` compares names like strcmp().
std::optional<qel::DesktopKind> DesktopByName(const char* name, int (*compare)(const char*, const char*)) {
  for (std::int32_t kind = 0; kind <= static_cast<std::int32_t>(qel::DesktopKind::kLxde); ++kind) {
    const auto desktop = static_cast<qel::DesktopKind>(kind);
    if (compare(name, qel::CurrentDesktopName(desktop)) == 0) {
      return desktop;
    }
  }
  return std::nullopt;
}

// The desktop that XDG_CURRENT_DESKTOP names exactly, which the agent checks first; otherwise Unity. The agent's other
// checks are not made here, because some of them need a display.
qel::DesktopKind SessionDesktop() {
  const char* name = std::getenv("XDG_CURRENT_DESKTOP");
  return DesktopByName(name != nullptr ? name : "", std::strcmp).value_or(qel::DesktopKind::kUnity);
}

// Redirects the loader's log messages from the agent's log file to a temporary directory, and prints them to standard
// error in the destructor.
class LoaderMessages {
 public:
  LoaderMessages() {
    qel::SetLogDirectory("/dev/null");  // in case no temporary directory can be created
    for (const std::filesystem::path& parent :
         {std::filesystem::temp_directory_path(ignored_), std::filesystem::path("/tmp")}) {
      std::string name = (parent / "qel-menu-check.XXXXXX").string();
      if (!parent.empty() && mkdtemp(name.data()) != nullptr) {
        directory_ = name;
        qel::SetLogDirectory(name.c_str());
        qel::SetLogLevel(qel::kLogInfo);
        return;
      }
    }
  }
  ~LoaderMessages() {
    for (const auto& file : std::filesystem::directory_iterator(directory_, ignored_)) {
      std::ifstream messages(file.path());
      for (std::string line; std::getline(messages, line);) {
        std::cerr << line << '\n';
      }
    }
    if (!directory_.empty()) {
      std::filesystem::remove_all(directory_, ignored_);
    }
  }
  LoaderMessages(const LoaderMessages&) = delete;
  LoaderMessages& operator=(const LoaderMessages&) = delete;

 private:
  std::filesystem::path directory_;
  std::error_code ignored_;
};

}  // namespace

int main(int argc, char** argv) {
  const option options[] = {{"desktop", required_argument, nullptr, 'd'},
                            {"absent", no_argument, nullptr, 'a'},
                            {"json", no_argument, nullptr, 'j'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
  qel::DesktopKind desktop = SessionDesktop();
  bool absent = false;
  bool json = false;
  for (int choice = 0; (choice = getopt_long(argc, argv, "d:ajh", options, nullptr)) != -1;) {
    switch (choice) {
      case 'd':
        if (const std::optional<qel::DesktopKind> named = DesktopByName(optarg, strcasecmp)) {
          desktop = *named;
          break;
        }
        std::cerr << "qel-menu-check: no such desktop: " << optarg << '\n';
        return 2;
      case 'a':
        absent = true;
        break;
      case 'j':
        json = true;
        break;
      case 'h':
        std::cout << kUsage;
        return 0;
      default:
        std::cerr << kUsage;
        return 2;
    }
  }
  const std::set<std::string> wanted(argv + optind, argv + argc);

  qel::DesktopEntryRegistry registry;
  qel::AbsenceNotes notes(desktop);
  qel::MenuEntries menu;
  {
    const LoaderMessages messages;
    menu = qel::LoadApplicationsMenu(registry, desktop, {.observer = &notes});
  }
  const std::vector<qel::ReportedEntry> report = qel::MakeReport(registry, menu, notes, wanted);
  if (json) {
    qel::PrintJson(std::cout, report);
  } else {
    qel::PrintMenus(std::cout, report);
    if (absent || !wanted.empty()) {
      qel::PrintAbsent(std::cout, report);
    }
  }
  return menu.empty() ? 1 : 0;
}
