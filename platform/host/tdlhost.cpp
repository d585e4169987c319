// tdlhost: a host in a terminal. Runs a command in a mount namespace where the agent's device file exists, prints the
// messages of agents, and reads requests from standard input.
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <exception>

#include "common/unique_fd.h"
#include "host/child_process.h"
#include "host/console.h"
#include "host/line_input.h"
#include "host/mount_namespace.h"
#include "host/page_opener.h"
#include "host/page_server.h"
#include "host/render_json.h"
#include "host/render_text.h"

namespace qel::host {
namespace {

constexpr int kUsageStatus = 2;
constexpr int kViolationStatus = 3;
constexpr int kHostStatus = 125;  // the host could not start

struct Options {
  bool json = false;
  bool strict = false;
  bool quiet = false;
  bool fetches = false;
  bool refuse_opens = false;
  int probe_result = 0;
  std::string icons;
  std::optional<PageAddress> page;
  std::vector<std::string> command;
};

// Runs the command, the console and the host until the command has ended.
class Program {
 public:
  Program(const Options& options, PageOpener* opener)
      : options_(options), opener_(opener), console_(host_, options.json ? OutputStyle::kJson : OutputStyle::kText) {}

  int Run();

 private:
  bool Prepare(int& status);
  void ServePage();
  void Loop();
  void PrintNewEvents();
  void RunRequests();
  int PollTimeout() const;
  bool Paused() const { return std::chrono::steady_clock::now() < console_.PausedUntil(); }
  void OnSignal();
  void StopCommand(int signal) const { kill(-child_, signal); }
  int Summary() const;

  Options options_;
  PageOpener* opener_;  // null without a page
  UniqueFd signals_;
  UniqueFd events_{eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
  Host host_;
  std::optional<PageServer> page_;
  Console console_;
  LineInput input_{[this](const std::vector<std::string>& words) { return console_.Completions(words); }};
  pid_t child_ = -1;
  bool child_ended_ = false;
  bool stop_asked_ = false;
  int child_status_ = 0;
  std::uint64_t printed_ = 0;
};

bool Program::Prepare(int& status) {
  status = kHostStatus;
  if (!options_.icons.empty() && mkdir(options_.icons.c_str(), 0777) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "tdlhost: cannot make %s: %s\n", options_.icons.c_str(), std::strerror(errno));
    return false;
  }
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  signal(SIGPIPE, SIG_IGN);
  signals_ = UniqueFd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));

  host_.faults().SetProbeResult(options_.probe_result);
  if (options_.refuse_opens) host_.faults().RefuseOpens(EACCES);
  host_.SetObserver([this] { eventfd_write(events_.Get(), 1); });
  std::string error;
  if (options_.page) page_.emplace(host_);
  if ((page_ && !page_->Bind(*options_.page, error)) || !host_.Start(error)) {
    std::fprintf(stderr, "tdlhost: %s\n", error.c_str());
    return false;
  }
  // What a script asks first is read before the command can say anything, so that its `wait` misses no message.
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  if (poll(&input, 1, 0) > 0) input_.OnReadable();
  int spawn_error = 0;
  child_ = StartCommandProcess(options_.command, spawn_error);
  if (child_ > 0) return true;
  std::fprintf(stderr, "tdlhost: cannot run %s: %s\n", options_.command[0].c_str(), std::strerror(spawn_error));
  status = spawn_error == ENOENT ? 127 : 126;
  return false;
}

void Program::ServePage() {
  page_->Serve();
  std::fprintf(stderr, "tdlhost: the page is at %s\n", page_->Url().c_str());
  if (!IsLoopback(options_.page->address)) {
    std::fputs("tdlhost: others in the network can read along, because the page is not encrypted\n", stderr);
  }
  opener_->Open(page_->Url());
}

void Program::PrintNewEvents() {
  eventfd_t count = 0;
  eventfd_read(events_.Get(), &count);
  std::vector<Event> fresh;
  host_.model().Read([&](const ModelState& state) {
    auto first = state.events.end();
    while (first != state.events.begin() && std::prev(first)->sequence > printed_) --first;
    fresh.assign(first, state.events.end());
  });
  for (const Event& event : fresh) {
    printed_ = event.sequence;
    console_.Saw(event);
    const std::string error = options_.icons.empty() ? "" : SaveIconsOf(event, options_.icons);
    const bool shown = !options_.quiet && (options_.fetches || !IsIdleFetch(event));
    if (shown || !error.empty()) input_.HidePrompt();
    if (!error.empty()) Console::Complain(error);
    if (shown) std::puts((options_.json ? EventToJson(event) : RenderEvent(event)).c_str());
  }
  std::fflush(stdout);
}

void Program::RunRequests() {
  std::string line;
  while (!Paused() && !console_.QuitAsked() && input_.Next(line)) console_.Execute(line);
  const bool closed = input_.ClosedByUser();
  if ((console_.QuitAsked() || closed) && !stop_asked_) {
    stop_asked_ = true;
    StopCommand(SIGTERM);
  }
}

int Program::PollTimeout() const {
  if (!Paused()) return -1;
  const auto left = console_.PausedUntil() - std::chrono::steady_clock::now();
  const auto millis = std::chrono::ceil<std::chrono::milliseconds>(left).count();
  return static_cast<int>(std::clamp<long long>(millis, 0, INT_MAX));
}

void Program::OnSignal() {
  signalfd_siginfo info{};
  while (read(signals_.Get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    if (info.ssi_signo != SIGCHLD) {
      stop_asked_ = true;
      StopCommand(static_cast<int>(info.ssi_signo));
      continue;
    }
    int status = 0;
    if (waitpid(child_, &status, WNOHANG) == child_) {
      child_ended_ = true;
      child_status_ = ShellStatus(status);
    }
  }
}

void Program::Loop() {
  RunRequests();
  while (!child_ended_) {
    // poll() ignores a negative descriptor: no requests are read after the end of the input or during a pause.
    const bool read_input = !input_.AtEnd() && !Paused();
    pollfd waits[] = {
        {signals_.Get(), POLLIN, 0}, {events_.Get(), POLLIN, 0}, {read_input ? STDIN_FILENO : -1, POLLIN, 0}};
    if (poll(waits, 3, PollTimeout()) < 0 && errno != EINTR) break;
    if (waits[1].revents != 0) PrintNewEvents();
    if (waits[2].revents != 0) input_.OnReadable();
    RunRequests();
    if (waits[0].revents != 0) OnSignal();
    if (!Paused() && !stop_asked_) input_.ShowPrompt();
  }
}

int Program::Summary() const {
  const ModelState state = host_.model().Snapshot();
  std::string counts;
  for (std::size_t i = 0; i < kMessageKinds; ++i) {
    if (state.counts[i] == 0) continue;
    counts +=
        Format(", %s %llu", KindName(static_cast<MessageKind>(i)), static_cast<unsigned long long>(state.counts[i]));
  }
  std::fprintf(stderr,
               "tdlhost: the command ended with status %d; %llu message(s)%s; %llu violation(s), %llu remark(s)\n",
               child_status_, static_cast<unsigned long long>(state.messages), counts.c_str(),
               static_cast<unsigned long long>(state.violations), static_cast<unsigned long long>(state.remarks));
  return options_.strict && state.violations > 0 ? kViolationStatus : child_status_;
}

int Program::Run() {
  int status = 0;
  if (!Prepare(status)) return status;
  if (page_) ServePage();
  input_.ShowPrompt();
  Loop();
  input_.HidePrompt();
  if (page_) page_->Stop();
  host_.Stop();
  PrintNewEvents();
  return Summary();
}

// The arguments after the program's name, in reverse order, as the command line library takes them. The value of --page
// may be missing, and the library would take the next word for it, which may be the command.
std::vector<std::string> Arguments(const CLI::App& app, int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  for (std::size_t i = 0; i < arguments.size() && arguments[i].starts_with('-') && arguments[i] != "--"; ++i) {
    const CLI::Option* const option = app.get_option_no_throw(arguments[i]);
    if (option == nullptr || option->get_items_expected_max() == 0) continue;
    if (arguments[i] == "--page" && (i + 1 == arguments.size() || !ParsePageAddress(arguments[i + 1]))) {
      arguments[i] = "--page=0";
    } else {
      ++i;  // its value
    }
  }
  std::ranges::reverse(arguments);
  return arguments;
}

int Main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "tdlhost [OPTIONS] [--] COMMAND [ARGS...]\n\n"
      "Plays the host of a virtual machine for the agent in it: runs COMMAND where the gate's device file exists,\n"
      "prints each message as a line, and takes requests on standard input ('help' lists them).",
      "tdlhost");
  app.add_flag("--json", options.json, "Print each message as one JSON object");
  app.add_flag("--strict", options.strict, "End with status 3 when a message broke its format");
  app.add_flag("-q,--quiet", options.quiet, "Print no messages, only answers and the summary");
  app.add_flag("--fetches", options.fetches, "Print fetches that got no command too");
  app.add_option("--icons", options.icons, "Save the icons of all messages in this folder")->type_name("DIR");
  app.add_option("--probe-result", options.probe_result, "Answer probes with this result; negative: not understood");
  app.add_flag("--refuse-opens", options.refuse_opens, "Let nobody open the device file");
  std::string page;
  app.add_option("--page", page,
                 "Serve a page that shows the guest, at 127.0.0.1 and a port of the system's choosing if not told")
      ->type_name("[ADDRESS:]PORT")
      ->check([](const std::string& text) {
        return ParsePageAddress(text) ? std::string() : "'" + text + "' is not [ADDRESS:]PORT with an IP address";
      });
  // All arguments from the command's name on belong to the command.
  app.prefix_command();
  app.footer(
      "The exit status is COMMAND's (128 + signal if it was killed), 3 with --strict when violations were seen,\n"
      "125 when the host could not start, 126 or 127 when COMMAND could not, 2 for a wrong command line.");
  try {
    app.parse(Arguments(app, argc, argv));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsageStatus;
  }
  options.command = app.remaining();
  if (!options.command.empty() && options.command[0] == "--") {
    options.command.erase(options.command.begin());
  } else if (!options.command.empty() && options.command[0][0] == '-') {
    std::fprintf(stderr, "tdlhost: unknown option %s; --help lists them\n", options.command[0].c_str());
    return kUsageStatus;
  }
  if (options.command.empty()) {
    std::fputs("tdlhost: no command to run is given; --help tells more\n", stderr);
    return kUsageStatus;
  }
  std::optional<PageOpener> opener;
  if (!page.empty()) {
    options.page = ParsePageAddress(page);
    opener.emplace();
  }
  std::string error;
  if (!EnterPrivateMountNamespace(error)) {
    std::fprintf(stderr, "tdlhost: %s\n", error.c_str());
    return kHostStatus;
  }
  return Program(options, opener ? &*opener : nullptr).Run();
}

}  // namespace
}  // namespace qel::host

int main(int argc, char** argv) {
  try {
    return qel::host::Main(argc, argv);
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "tdlhost: %s\n", problem.what());
    return qel::host::kHostStatus;
  }
}
