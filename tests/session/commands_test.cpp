// What the host's commands do, seen through the device, the windows' real state and what started programs find. The
// agent fetches one command a second, so each test makes several of them do in one session.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/file_descriptor.h"
#include "session/session.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace qel::test {
namespace {

using namespace std::chrono_literals;
using host::Force;
using host::MessageKind;
using host::StartLayout;

constexpr long kNormal = 1;  // values of WM_STATE (ICCCM)
constexpr long kIconic = 3;

std::uint32_t Id(const IdleProcess& process) {
  return static_cast<std::uint32_t>(process.Pid());
}

std::string Content(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// The letter in /proc that tells what a process is doing; ' ' when there is none.
char ProcessState(pid_t pid) {
  const std::string stat = Content("/proc/" + std::to_string(pid) + "/stat");
  const std::size_t name_end = stat.rfind(") ");
  return name_end == std::string::npos ? ' ' : stat[name_end + 2];
}

bool WaitForState(pid_t pid, char state) {
  return WaitUntil([&] { return ProcessState(pid) == state; });
}

// Has the focus and lies above the others.
bool IsInFront(Session& session, Window window, const std::vector<Window>& others) {
  XClient& client = session.Client();
  const std::vector<Window> stacking = client.Stacking();
  const auto height = [&](Window of) { return std::ranges::find(stacking, client.TopLevel(of)) - stacking.begin(); };
  return client.FocusedWindow() == window &&
         std::ranges::all_of(others, [&](Window other) { return height(other) < height(window); });
}

TEST(CommandsTest, WindowsAreActivatedHiddenClosedAndReportedAnew) {
  Session session;
  IdleProcess& first = session.NewProcess();
  IdleProcess& second = session.NewProcess();
  const Window a = session.Open({.pid = first.Pid(), .title = "a"});
  const Window b = session.Open({.pid = first.Pid(), .title = "b"});
  const Window c = session.Open({.pid = second.Pid(), .title = "c"});
  session.StartServingAgent();
  XClient& client = session.Client();
  host::Host& host = session.Host();
  const auto id = [&](Window window) { return static_cast<std::uint32_t>(client.TopLevel(window)); };
  const auto comes_to_front = [&](Window window, const std::vector<Window>& others) {
    return WaitUntil([&] { return IsInFront(session, window, others); });
  };
  const auto becomes = [&](Window window, long state) {
    return WaitUntil([&] { return client.WmState(window) == state; });
  };

  host.Send(host::ActivateWindowCommand(id(a)));
  EXPECT_TRUE(comes_to_front(a, {b, c}));
  // One after the other in the order of the list, and within a process in that of the windows.
  host.Send(host::ActivateAppsCommand({Id(second), Id(first)}, host::kActivateAppsAlternative));
  EXPECT_TRUE(comes_to_front(b, {c, a}));
  host.Send(host::ActivateOneAppCommand(Id(second)));
  EXPECT_TRUE(comes_to_front(c, {a, b}));

  const auto reply = [&](std::uint64_t count) {
    EXPECT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, count));
    return host.model().Snapshot().last_hidden.value_or(host::HiddenWindows{});
  };
  host.Send(host::HideCommand({Id(second), Id(first)}, {static_cast<std::uint32_t>(a)}, 0xA1, 0xFFFFFFFF));
  EXPECT_TRUE(becomes(b, kIconic));
  EXPECT_TRUE(becomes(c, kIconic));
  EXPECT_EQ(client.WmState(a), kNormal);
  const host::HiddenWindows hidden = reply(1);
  EXPECT_EQ(hidden.context_a, 0xA1u);
  EXPECT_EQ(hidden.context_b, 0xFFFFFFFFu);
  EXPECT_EQ(hidden.windows, (std::vector<std::uint32_t>{id(b), id(c)}));
  host.Send(host::ActivateWindowCommand(id(b)));
  EXPECT_TRUE(becomes(b, kNormal));
  EXPECT_TRUE(comes_to_front(b, {a}));
  host.Send(host::HideOneCommand(Id(first)));
  EXPECT_TRUE(becomes(a, kIconic));
  EXPECT_TRUE(becomes(b, kIconic));
  EXPECT_EQ(reply(2).windows, (std::vector<std::uint32_t>{id(a), id(b)}));

  host.Send(host::ResetCommand());
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 2));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 6u) << "each window again";
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 0u);
  EXPECT_EQ(session.Count(MessageKind::kToolState), 2u);

  host.Send(host::QuitCommand(Id(first), Force::kNo));
  EXPECT_TRUE(WaitUntil([&] { return client.WasAskedToClose(a); }));
  EXPECT_TRUE(WaitUntil([&] { return client.WasAskedToClose(b); }));
  EXPECT_FALSE(client.WasAskedToClose(c));
  host.Send(host::QuitCommand(Id(second), Force::kYes));
  EXPECT_EQ(second.WaitForEnd().value_or(ChildStatus{}).signal, SIGKILL);
  EXPECT_EQ(ProcessState(first.Pid()), 'S') << "only asked";
  session.StopAgent();
  session.ExpectNoViolations();
}

// A program that tells what it finds, then waits at the gate.
constexpr const char* kProbe = R"sh(#!/bin/sh
exec sh -c '
  exec >"$0.new"
  echo $$
  for argument; do printf "<%s>" "$argument"; done
  read -r pid name state parent group rest </proc/$$/stat
  echo
  echo "group $((group == pid)) autostart ${DESKTOP_AUTOSTART_ID-unset} home ${HOME:+kept}"
  grep -E "Sig(Blk|Ign)" /proc/self/status
  ls /proc/$$/fd
  mv "$0.new" "$0.out"
  read -r line <"${0%/*}/gate"
' "$0" "$@"
)sh";
constexpr const char* kCleanStart =
    "group 1 autostart unset home kept\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n";

struct Started {
  pid_t pid = 0;
  std::string arguments;
};

class Probe {
 public:
  Probe() : path_(files_.Write("probe", kProbe)), gate_path_(files_.Path() / "gate") {
    chmod(path_.c_str(), 0755);
    mkfifo(gate_path_.c_str(), 0600);
    gate_ = FileDescriptor(open(gate_path_.c_str(), O_RDWR | O_CLOEXEC));
  }

  const std::string& Path() const { return path_; }
  const TempDir& Files() const { return files_; }

  // Waits for one that was started to tell what it found.
  Started Wait() const {
    const std::string out = path_ + ".out";
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(out); }));
    std::ifstream found(out);
    Started started;
    found >> started.pid;
    found.ignore();
    std::getline(found, started.arguments);
    std::stringstream rest;
    rest << found.rdbuf();
    EXPECT_EQ(rest.str(), kCleanStart);
    std::filesystem::remove(out);
    return started;
  }

  // Lets this many of those that wait go on to their end.
  void Release(std::size_t count) const {
    const std::string lines(count, '\n');
    EXPECT_EQ(write(gate_.Get(), lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
  }

 private:
  TempDir files_;
  std::string path_;
  std::string gate_path_;
  FileDescriptor gate_;
};

int ReportedEnds(Session& session, const std::string& path, pid_t pid = 0) {
  int count = 0;
  session.Host().model().Read([&](const host::ModelState& state) {
    for (const host::Event& event : state.events) {
      const auto* end = std::get_if<host::RmvRunByPath>(&event.notification);
      count += end != nullptr && end->path == path && (pid == 0 || end->pid == static_cast<std::uint32_t>(pid)) ? 1 : 0;
    }
  });
  return count;
}

// What the local socket tells; nothing when it does not answer as it should.
std::optional<std::uint32_t> AskLocalSocket() {
  const FileDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path + 1, "corvessan-tdl-socket");
  std::uint32_t answer[2];
  if (connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      recv(client.Get(), answer, sizeof answer, MSG_WAITALL) != sizeof answer[0]) {
    return std::nullopt;
  }
  return answer[0];
}

// Shares with a common beginning, lines that are none of ours, and escapes, the last of them cut short.
constexpr const char* kMounts = R"(proc /proc proc rw 0 0
Home
Home /media/decoy ext4 rw 0 0
Home\040Work	 /media/home\040work qel_fs rw 0 0
Home /media/home qel_fs rw 0 0
Homes\134 /media/homes\134 qel_fs rw 0 0
Last\04 /media/last\04 qel_fs)";

TEST(CommandsTest, ProgramsStartCleanWithTheirDocumentsAndTheirEndsAreReported) {
  const Probe probe;
  const std::string entry =
      probe.Files().Write("entry.desktop", "[Desktop Entry]\nExec=" + probe.Path() +
                                               " -n %U %i --file=%f %F %c \"two words\" back\\sslash %% %k\n");
  const std::string broken = probe.Files().Write("broken.desktop", "[Desktop Entry]\nExec=" + probe.Path() + " \"%U\n");
  const std::string missing = "/no/such/program";
  Session session;
  Agent& agent = session.StartServingAgent({"-r", "100"}, {{"DESKTOP_AUTOSTART_ID", "1"}});
  host::Host& host = session.Host();
  const std::string mounts = probe.Files().Write("mounts", kMounts);
  const std::string agents_mounts = "/proc/" + std::to_string(agent.Pid()) + "/mounts";
  ASSERT_EQ(mount(mounts.c_str(), agents_mounts.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);

  const std::string unresolved(R"(//Mac/Home/)" + std::string(4090, 'x'));  // longer than any path
  const std::string fixed_arguments = "<--file=%f><" + probe.Path() + "><two words><back slash><%>";
  struct Case {
    StartLayout layout;
    std::string app;
    std::vector<std::string> documents;
    std::string arguments;
  };
  const std::vector<Case> cases = {
      {StartLayout::kFixed, probe.Path(), {"/not/for/programs"}, ""},
      {StartLayout::kFixed, entry, {R"(//.qsf/Homes\/b c)"}, R"(<-n></media/homes\/b c>)" + fixed_arguments},
      {StartLayout::kFields,
       entry,
       {"//Mac/Home/é", "//Mac/NoShare/x", R"(//Mac/Last\04)", "/plain"},
       "<-n>" + fixed_arguments + R"(</media/home work/é><//Mac/NoShare/x></media/last\04></plain>)"},
      {StartLayout::kFieldsBehindFixed, probe.Path(), {unresolved, "b"}, "<" + unresolved + "><b>"},
  };
  std::vector<Started> started;
  for (const Case& start : cases) {
    const auto command = host::StartCommand(start.layout, start.app, start.documents);
    ASSERT_TRUE(command.has_value());
    host.Send(*command);
    started.push_back(probe.Wait());
    EXPECT_EQ(started.back().arguments, start.arguments);
  }
  EXPECT_EQ(LogCount("Error: Failed to resolve doc path '//Mac/NoShare/x'"), 1);

  // Nothing to start, nothing that can be, and a process id that means a whole group.
  host.Send(*host::StartCommand(StartLayout::kFixed, broken, {probe.Path()}));
  host.Send(*host::StartCommand(StartLayout::kFixed, missing, {}));
  host.Send(host::QuitCommand(static_cast<std::uint32_t>(-started[0].pid), Force::kYes));
  // A program without a window is asked to end by a signal; one that shows a window is no longer looked after.
  session.Open({.pid = started[3].pid, .title = "shown first"});
  ASSERT_TRUE(session.Sees("shown first"));
  host.Send(host::QuitCommand(static_cast<std::uint32_t>(started[2].pid), Force::kNo));
  EXPECT_TRUE(WaitUntil([&] { return ReportedEnds(session, entry, started[2].pid) == 1; }));
  EXPECT_EQ(LogCount("Error: Exec line of '" + broken + "' names no program"), 1);
  EXPECT_EQ(LogCount("Error: Failed to execute process '" + missing + "'"), 1);
  EXPECT_EQ(ReportedEnds(session, missing), 1);
  EXPECT_EQ(LogCount("Error: QuitApp: pid=-" + std::to_string(started[0].pid) + " names no process."), 1);
  EXPECT_EQ(LogCount("Error: QuitApp: pid=" + std::to_string(started[2].pid) + " not registered as shared app."), 1);

  // Three ends that coincide are one delivery of the signal, which reaps one. The next child's end brings the others.
  const std::vector<pid_t> burst{started[0].pid, started[1].pid, started[3].pid};
  agent.Signal(SIGSTOP);
  ASSERT_TRUE(WaitForState(agent.Pid(), 'T'));
  probe.Release(burst.size());
  for (const pid_t pid : burst) {
    ASSERT_TRUE(WaitForState(pid, 'Z'));
  }
  agent.Signal(SIGCONT);
  const auto zombies = [&] { return std::ranges::count(burst, 'Z', ProcessState); };
  EXPECT_TRUE(WaitUntil([&] { return zombies() == 2; }));
  host.Send(*host::StartCommand(StartLayout::kFixed, missing, {}));
  EXPECT_TRUE(WaitUntil([&] { return zombies() == 0 && ReportedEnds(session, missing) == 2; }));
  EXPECT_TRUE(WaitUntil([&] { return session.Count(MessageKind::kRmvRunByPath) == 5; }));
  EXPECT_EQ(ReportedEnds(session, probe.Path(), started[0].pid), 1);
  EXPECT_EQ(ReportedEnds(session, entry, started[1].pid), 1);

  EXPECT_EQ(AskLocalSocket(), host.model().Snapshot().applications.size());
  session.StopAgent();
  EXPECT_EQ(AskLocalSocket(), std::nullopt);
  EXPECT_EQ(session.Count(MessageKind::kRmvRunByPath), 5u);
  session.ExpectNoViolations();
}

TEST(CommandsTest, HostileCommandsCostOnlyThemselves) {
  Session session("metacity");
  const Window below = session.Open({.title = "below"});
  const Window above = session.Open({.title = "above"});
  session.StartServingAgent();
  host::Host& host = session.Host();
  const host::HostCommand start = *host::StartCommand(StartLayout::kFields, "/bin/true", {"a"});

  const host::HostCommand hide = host::HideCommand({1}, {2}, 3, 4);
  host::HostCommand noise = host::RawCommand(host.faults().Garbage(4096));
  std::copy_n(hide.block.begin(), 36, noise.block.begin());  // up to its fields
  noise.block[16] = 0xEC;                                    // the payload's size: all the rest
  noise.block[17] = 0x0F;
  host::HostCommand endless = start;
  std::fill_n(endless.block.begin() + 16, 4, 0xFF);
  host::HostCommand outside = hide;
  std::fill_n(outside.block.begin() + 32, 3, 0xFF);  // where the fields are
  for (const host::HostCommand& hostile :
       {host::RawCommand({start.block.begin(), start.block.begin() + 7}), noise, endless, outside}) {
    host.Send(hostile);
  }
  for (const std::uint32_t size : {0U, 19U, 0xFFFFFFFFU, 30U}) {
    host::HostCommand lie = start;
    lie.announced_size = size;
    host.Send(lie);
  }
  host.Send(host::ActivateWindowCommand(static_cast<std::uint32_t>(session.Client().TopLevel(below))));
  EXPECT_TRUE(WaitUntil([&] { return IsInFront(session, below, {above}); }, 20s));
  EXPECT_EQ(LogCount("Error: malloc() err, sz=4294967295"), 1);
  EXPECT_EQ(LogCount("Error: Failed to fetch host command"), 3);
  EXPECT_EQ(LogCount("Executing args:"), 0);
  session.StopAgent();
  session.ExpectNoViolations();
}

TEST(CommandsTest, NeitherASlowHostNorASlowDisplayHoldsTheOtherUp) {
  const Probe probe;
  Session session("icewm");  // watches no frame
  host::Host& host = session.Host();
  IdleProcess& process = session.NewProcess();
  const Window window = session.Open({.pid = process.Pid(), .title = "first"});

  // While one fetch waits for its answer, windows are reported.
  host.faults().SetDelay(3s, MessageKind::kFetch);
  session.StartServingAgent();
  ASSERT_TRUE(session.WaitForCount(MessageKind::kFetch, 1));
  const auto fetched = std::chrono::steady_clock::now();
  host.Send(host::HideOneCommand(Id(process)));
  for (int i = 0; i < 3; ++i) {
    session.Settle();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - fetched, 3s);
  EXPECT_EQ(session.Count(MessageKind::kFetch), 1u);
  host.faults().SetDelay(0s, MessageKind::kFetch);

  // The display stands still: the hide command is answered, its window stays as it is, and programs are started.
  kill(session.Server().Pid(), SIGSTOP);
  ASSERT_TRUE(WaitForState(session.Server().Pid(), 'T'));
  EXPECT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, 1));
  host.Send(*host::StartCommand(StartLayout::kFields, probe.Path(), {"x"}));
  host.Send(host::QuitCommand(Id(process), Force::kYes));
  EXPECT_EQ(probe.Wait().arguments, "<x>");
  EXPECT_EQ(process.WaitForEnd().value_or(ChildStatus{}).signal, SIGKILL);
  probe.Release(1);
  EXPECT_TRUE(session.WaitForCount(MessageKind::kRmvRunByPath, 1));
  kill(session.Server().Pid(), SIGCONT);
  EXPECT_TRUE(WaitUntil([&] { return session.Client().WmState(window) == kIconic; }));
  session.Settle();
  session.StopAgent();
  session.ExpectNoViolations();
}

}  // namespace
}  // namespace qel::test
