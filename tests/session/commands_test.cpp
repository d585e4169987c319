// The effects of the host's commands: messages to the host, states of windows, and the environment of started programs.
// The agent fetches one command per second, so each test sends several commands in one session.

#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <sstream>

#include "session/session_test.h"

namespace qel::test {
namespace {

using host::Force;
using host::StartLayout;

constexpr long kNormal = 1;  // values of WM_STATE (ICCCM)
constexpr long kIconic = 3;

std::uint32_t Id(const IdleProcess& process) {
  return static_cast<std::uint32_t>(process.Pid());
}

// The state letter of a process in /proc, or ' ' if the process does not exist.
char ProcessState(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const std::size_t name_end = stat.rfind(") ");
  return name_end == std::string::npos ? ' ' : stat[name_end + 2];
}

bool WaitForState(pid_t pid, char state) {
  return WaitUntil([&] { return ProcessState(pid) == state; }, kSoon);
}

bool WaitForWmState(Session& session, Window window, long state) {
  return WaitUntil([&] { return session.Client().WmState(window) == state; }, kSoon);
}

// Waits until the window has the focus and is above the others.
bool ComesToFront(Session& session, Window window, const std::vector<Window>& others) {
  return WaitUntil(
      [&] {
        XClient& client = session.Client();
        const std::vector<Window> stacking = client.Get(client.Root(), "_NET_CLIENT_LIST_STACKING");
        const auto place = std::ranges::find(stacking, window);
        return client.FocusedWindow() == window &&
               std::ranges::all_of(others, [&](Window other) { return std::ranges::find(stacking, other) < place; });
      },
      kSoon);
}

TEST(CommandsTest, WindowsAreActivatedHiddenClosedAndReportedAnew) {
  Session session;
  IdleProcess& first = session.NewProcess();
  IdleProcess& second = session.NewProcess();
  const Window a = session.Open({.pid = first.Pid(), .title = "a"});
  const Window b = session.Open({.pid = first.Pid(), .title = "b"});
  const Window c = session.Open({.pid = second.Pid(), .title = "c"});
  session.StartServingAgent();
  host::Host& host = session.Host();

  // Commands that are announced with a wrong size.
  host::HostCommand lie = *host::StartCommand(StartLayout::kFields, "/bin/true", {"a"});
  for (const std::uint32_t size : {0U, 19U, 0xFFFFFFFFU, 30U}) {
    lie.announced_size = size;
    host.Send(lie);
  }
  host.Send(host::ActivateWindowCommand(session.Id(a)));
  EXPECT_TRUE(ComesToFront(session, a, {b, c}));
  EXPECT_EQ(LogCount("Error: malloc() err, sz=4294967295"), 1);
  EXPECT_EQ(LogCount("Error: Failed to fetch host command"), 3);
  EXPECT_EQ(LogCount("Executing args:"), 0);
  // The agent activates processes in the order of the list, and the windows of a process in their own order.
  host.Send(host::ActivateAppsCommand({Id(second), Id(first)}, host::kActivateAppsAlternative));
  EXPECT_TRUE(ComesToFront(session, b, {c, a}));

  host.Send(host::HideCommand({Id(second), Id(first)}, {static_cast<std::uint32_t>(a)}, 0xA1, 0xFFFFFFFF));
  EXPECT_TRUE(WaitForWmState(session, b, kIconic));
  EXPECT_TRUE(WaitForWmState(session, c, kIconic));
  EXPECT_EQ(session.Client().WmState(a), kNormal);
  EXPECT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, 1));
  EXPECT_EQ(host.model().Snapshot().last_hidden->windows, (std::vector{session.Id(b), session.Id(c)}));
  host.Send(host::ActivateWindowCommand(session.Id(b)));
  EXPECT_TRUE(WaitForWmState(session, b, kNormal));
  EXPECT_TRUE(ComesToFront(session, b, {a}));

  host.Send(host::ResetCommand());
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFinishEnum, 2));
  EXPECT_EQ(session.Count(MessageKind::kAddRun), 6u) << "each window is reported again";
  EXPECT_EQ(session.Count(MessageKind::kRmvRun), 0u);
  EXPECT_EQ(session.Count(MessageKind::kToolState), 2u);

  host.Send(host::QuitCommand(Id(first), Force::kNo));
  EXPECT_TRUE(WaitUntil([&] { return session.Client().WasAskedToClose(a); }, kSoon));
  EXPECT_TRUE(WaitUntil([&] { return session.Client().WasAskedToClose(b); }, kSoon));
  EXPECT_FALSE(session.Client().WasAskedToClose(c));
  host.Send(host::QuitCommand(Id(second), Force::kYes));
  EXPECT_EQ(second.Wait(kSoon).value_or(ChildStatus{}).signal, SIGKILL);
  EXPECT_EQ(ProcessState(first.Pid()), 'S') << "the process must not be killed";
}

// A script that writes its arguments and its environment to a file, then waits for the file "gate". It has no "#!"
// line, so execvpe() runs it with the shell.
constexpr const char* kProbe = R"sh(exec sh -c '
  exec >"$0.new"
  echo $$
  for argument; do printf "<%s>" "$argument"; done
  read -r pid name state parent group rest </proc/$$/stat
  echo
  echo "group $((group == pid)) autostart ${DESKTOP_AUTOSTART_ID-unset} slice ${G_SLICE-unset} home ${HOME:+kept}"
  grep -E "Sig(Blk|Ign)" /proc/self/status
  ls /proc/$$/fd
  mv "$0.new" "$0.out"
  until test -e "${0%/*}/gate"; do sleep 0.1; done
' "$0" "$@"
)sh";
constexpr const char* kCleanStart =
    "\ngroup 1 autostart unset slice unset home kept\nSigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0\n1\n2\n";

class Probe {
 public:
  Probe() { fs::permissions(path_, fs::perms::owner_all); }

  const std::string& Path() const { return path_; }
  std::string Write(const std::string& file, const std::string& content) const { return files_.Write(file, content); }

  // Waits for the output of a started probe, checks it, and returns the process id.
  pid_t Wait(const std::string& arguments) const {
    const std::string out = path_ + ".out";
    EXPECT_TRUE(WaitUntil([&] { return fs::exists(out); }, kSoon));
    std::ifstream found(out);
    pid_t pid = 0;
    found >> pid;
    found.ignore();
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(found), {}), arguments + kCleanStart);
    fs::remove(out);
    return pid;
  }

  // Lets all waiting probes end.
  void Release() const { Write("gate", ""); }

 private:
  TempDir files_;
  std::string path_ = files_.Write("probe", kProbe);
};

std::ptrdiff_t ReportedEnds(Session& session, const std::string& path) {
  return std::ranges::count_if(session.Host().model().Snapshot().events, [&](const host::Event& event) {
    const auto* end = std::get_if<host::RmvRunByPath>(&event.notification);
    return end != nullptr && end->path == path;
  });
}

constexpr sockaddr_un kLocalAddress{.sun_family = AF_UNIX, .sun_path = "\0corvessan-tdl-socket"};

// A connected client of the local socket, or -1 if no agent listens.
int ConnectLocally() {
  const int client = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(client, reinterpret_cast<const sockaddr*>(&kLocalAddress), sizeof kLocalAddress) != 0) {
    close(client);
    return -1;
  }
  return client;
}

TEST(CommandsTest, ProgramsStartCleanWithTheirDocumentsAndTheirEndsAreReported) {
  const Probe probe;
  const std::string entry =
      probe.Write("entry.desktop", "[Desktop Entry]\nExec=" + probe.Path() + " -n %U %i --file=%f \"two words\" %%\n");
  const std::string broken = probe.Write("broken.desktop", "[Desktop Entry]\nExec=" + probe.Path() + " \"%U\n");
  const std::string missing = "/no/such/program";
  const std::string path = "/no/such:" + fs::path(probe.Path()).parent_path().string() + ":" + std::getenv("PATH");
  Session session;
  Agent& agent = session.StartServingAgent({"-r", "100"}, {{"DESKTOP_AUTOSTART_ID", "1"}, {"PATH", path}});
  host::Host& host = session.Host();
  const std::string mounts = probe.Write("mounts", "Home\\040Work /media/home\\040work qel_fs rw 0 0\n");
  const std::string agents_mounts = "/proc/" + std::to_string(agent.Pid()) + "/mounts";
  ASSERT_EQ(mount(mounts.c_str(), agents_mounts.c_str(), nullptr, MS_BIND, nullptr), 0) << std::strerror(errno);

  const std::string fixed_arguments = "<--file=%f><two words><%>";
  const std::tuple<StartLayout, std::string, std::vector<std::string>, std::string> starts[] = {
      {StartLayout::kFixed, "probe", {"/not/for/programs"}, ""},
      {StartLayout::kFixed, entry, {"//.qsf/Home/b c"}, "<-n></media/home work/b c>" + fixed_arguments},
      {StartLayout::kFields,
       entry,
       {"//Mac/Home/é", "/plain"},
       "<-n>" + fixed_arguments + "</media/home work/é></plain>"},
      {StartLayout::kFieldsBehindFixed, probe.Path(), {"//Mac/NoShare/x", "b"}, "<//Mac/NoShare/x><b>"}};
  std::vector<pid_t> started;
  for (const auto& [layout, app, documents, arguments] : starts) {
    host.Send(host::StartCommand(layout, app, documents).value());
    started.push_back(probe.Wait(arguments));
  }
  EXPECT_EQ(LogCount("Error: Failed to resolve doc path '//Mac/NoShare/x'"), 1);

  // An entry without a program, a missing program, and a process id that means a whole group.
  host.Send(*host::StartCommand(StartLayout::kFixed, broken, {probe.Path()}));
  host.Send(*host::StartCommand(StartLayout::kFixed, missing, {}));
  EXPECT_TRUE(WaitUntil([&] { return ReportedEnds(session, missing) == 1; }, kSoon));
  host.Send(host::QuitCommand(static_cast<std::uint32_t>(-started[0]), Force::kYes));
  // A program without windows gets a signal. The end of a program that has shown a window is not reported.
  session.Open({.pid = started[3], .title = "shown first"});
  ASSERT_TRUE(session.Sees("shown first"));
  host.Send(host::QuitCommand(static_cast<std::uint32_t>(started[2]), Force::kNo));
  EXPECT_TRUE(WaitUntil([&] { return ReportedEnds(session, entry) == 1; }, kSoon));
  for (const std::string& text :
       {"Exec line of '" + broken + "' names no program", "Failed to execute process '" + missing + "'",
        "QuitApp: pid=-" + std::to_string(started[0]) + " names no process.",
        "QuitApp: pid=" + std::to_string(started[2]) + " not registered as shared app."}) {
    EXPECT_EQ(LogCount("Error: " + text), 1) << text;
  }

  // Three processes end while the agent is stopped. It gets one SIGCHLD and reaps one. The next SIGCHLD reaps the rest.
  const std::vector<pid_t> burst{started[0], started[1], started[3]};
  // After a second the agent has handled the earlier end.
  EXPECT_TRUE(session.WaitForCount(MessageKind::kFetch, session.Count(MessageKind::kFetch) + 2));
  agent.Kill(SIGSTOP);
  ASSERT_TRUE(WaitForState(agent.Pid(), 'T'));
  probe.Release();
  for (const pid_t pid : burst) {
    ASSERT_TRUE(WaitForState(pid, 'Z'));
  }
  agent.Kill(SIGCONT);
  const auto zombies = [&] { return std::ranges::count(burst, 'Z', ProcessState); };
  EXPECT_TRUE(WaitUntil([&] { return zombies() == 2; }, kSoon));
  host.Send(*host::StartCommand(StartLayout::kFixed, missing, {}));
  EXPECT_TRUE(session.WaitForCount(MessageKind::kRmvRunByPath, 5));
  EXPECT_EQ(zombies(), 0);
  EXPECT_EQ(ReportedEnds(session, missing), 2);
  EXPECT_EQ(ReportedEnds(session, "probe"), 1);
  EXPECT_EQ(ReportedEnds(session, entry), 2);

  const int client = ConnectLocally();
  std::uint32_t answer[2] = {};
  EXPECT_EQ(recv(client, answer, sizeof answer, MSG_WAITALL), 4) << "the answer is only the number of processes";
  EXPECT_EQ(answer[0], host.model().Snapshot().applications.size());
  close(client);
  session.StopAgent();
  EXPECT_EQ(ConnectLocally(), -1);
  EXPECT_EQ(session.Count(MessageKind::kRmvRunByPath), 5u);
}

TEST(CommandsTest, NeitherASlowHostNorASlowDisplayHoldsTheOtherUp) {
  const Probe probe;
  Session session("icewm");  // the agent watches no frames of this window manager
  host::Host& host = session.Host();
  IdleProcess& process = session.NewProcess();
  const Window window = session.Open({.pid = process.Pid(), .title = "first"});

  // Windows are reported while a fetch waits for its answer.
  host.faults().SetDelay(kSlack, MessageKind::kFetch);
  session.StartServingAgent();
  ASSERT_TRUE(session.WaitForCount(MessageKind::kFetch, 1));
  host.Send(host::HideOneCommand(Id(process)));
  session.Settle();
  session.Settle();
  EXPECT_EQ(session.Count(MessageKind::kFetch), 1u);
  host.faults().SetDelay(0s, MessageKind::kFetch);

  // The X server does not answer. The hide command is still answered, and programs are started and killed.
  kill(session.Server().Pid(), SIGSTOP);
  ASSERT_TRUE(WaitForState(session.Server().Pid(), 'T'));
  EXPECT_TRUE(session.WaitForCount(MessageKind::kHiddenWindows, 1));
  host.Send(*host::StartCommand(StartLayout::kFields, probe.Path(), {"x"}));
  host.Send(host::QuitCommand(Id(process), Force::kYes));
  probe.Wait("<x>");
  EXPECT_EQ(process.Wait(kSoon).value_or(ChildStatus{}).signal, SIGKILL);
  probe.Release();
  EXPECT_TRUE(session.WaitForCount(MessageKind::kRmvRunByPath, 1));
  kill(session.Server().Pid(), SIGCONT);
  EXPECT_TRUE(WaitForWmState(session, window, kIconic));
  session.Settle();
}

}  // namespace
}  // namespace qel::test
