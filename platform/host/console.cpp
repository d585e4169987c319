#include "host/console.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <stdexcept>

#include "host/icon_file.h"
#include "host/render_json.h"
#include "host/render_text.h"

namespace qel::host {
namespace {

// Thrown for a request that is wrong; caught in Execute().
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::vector<std::string> SplitWords(const std::string& line) {
  std::vector<std::string> words;
  std::istringstream stream(line);
  while (stream >> std::ws && !stream.eof()) {
    std::string word;
    // A word in double quotes may contain spaces; in it, a backslash escapes the next character.
    if (!(stream >> std::quoted(word))) break;
    words.push_back(word);
  }
  return words;
}

std::uint32_t Number(const std::string& text) {
  try {
    std::size_t used = 0;
    const long long value = std::stoll(text, &used, 0);
    // Negative process ids are allowed, to test how an agent handles them.
    if (used == text.size() && value >= INT32_MIN && value <= static_cast<long long>(UINT32_MAX)) {
      return static_cast<std::uint32_t>(value);
    }
  } catch (const std::logic_error&) {
  }
  throw BadRequest("'" + text + "' is not a number");
}

std::vector<std::uint32_t> Numbers(const std::vector<std::string>& words) {
  std::vector<std::uint32_t> numbers;
  for (const std::string& word : words) numbers.push_back(Number(word));
  return numbers;
}

MessageKind Kind(const std::string& name) {
  const auto kind = KindFromName(name);
  if (!kind) throw BadRequest("no message is called '" + name + "'");
  return *kind;
}

// Removes an option from the words; returns true if it was there.
bool TakeFlag(std::vector<std::string>& words, const std::string& flag) {
  return std::erase(words, flag) > 0;
}

void Need(const std::vector<std::string>& words, std::size_t least, std::size_t most = SIZE_MAX) {
  if (words.size() < least) throw BadRequest("something is missing");
  if (words.size() > most) throw BadRequest("too many words");
}

// Whether errors are shown in red.
bool ErrorsInColour() {
  const char* const terminal = std::getenv("TERM");
  return isatty(STDERR_FILENO) != 0 && terminal != nullptr && std::strcmp(terminal, "dumb") != 0 &&
         std::getenv("NO_COLOR") == nullptr;
}

}  // namespace

const std::vector<Console::Request>& Console::Requests() {
  constexpr const char* kLook = "What the host knows";
  constexpr const char* kAsk = "What the host asks for";
  constexpr const char* kBadHost = "To be a bad host";
  constexpr const char* kConsole = "This console";
  static const std::vector<Request> requests = {
      {"apps", "", kLook, "lists the running applications", "apps", &Console::Apps},
      {"windows", "", kLook, "lists their windows", "windows", &Console::Windows},
      {"menu", "[--json]", kLook, "shows the applications menu", "menu", &Console::Menu},
      {"status", "", kLook, "shows the tool's state and counts of messages", "status", &Console::Status},
      {"icon", "WID FILE", kLook, "saves a window's icon", "icon 0x400003 editor.png", &Console::IconOf},
      {"icons", "DIR", kLook, "saves all icons of windows and menu in a folder", "icons /tmp", &Console::Icons},
      {"start", "[--fixed|--fields|--behind] APP [DOC...]", kAsk,
       "starts an entry of the menu, a desktop file or a program; the options choose the command's layout",
       "start \"Text Editor\" //Mac/Home/letter.txt", &Console::StartApp},
      {"activate", "WID", kAsk, "activates a window", "activate 0x400003", &Console::Activate},
      {"activate-apps", "PID... [--code 109|138]", kAsk, "activates all windows of applications",
       "activate-apps 1234 1240", &Console::ActivateApps},
      {"hide", "PID... [--except WID...] [--context A B]", kAsk, "hides the windows of applications",
       "hide 1234 --except 0x400003", &Console::Hide},
      {"quit", "PID [--force]", kAsk, "asks an application to quit, or kills it", "quit 1234", &Console::Quit},
      {"reset", "", kAsk, "has everything reported again", "reset", &Console::Reset},
      {"raw", "HEX", kAsk, "sends these bytes as a command", "raw 01000000 00000000", &Console::Raw},
      {"resubmit", "N [MESSAGE]", kBadHost, "has the next N messages submitted again", "resubmit 3 add-run",
       &Console::Resubmit},
      {"fail", "N [MESSAGE]", kBadHost, "answers the next N with a failure of the channel", "fail 1", &Console::Fail},
      {"reject", "N [MESSAGE]", kBadHost, "rejects the next N", "reject 1 window-title", &Console::Reject},
      {"garbage", "N [MESSAGE]", kBadHost, "fills the replies to the next N with garbage", "garbage 2 fetch",
       &Console::Garbage},
      {"delay", "MS [MESSAGE]", kBadHost, "answers so many milliseconds late from now on", "delay 500",
       &Console::Delay},
      {"wait", "SECONDS [MESSAGE]", kConsole, "takes the next request later, or as soon as such a message comes",
       "wait 10 add-run", &Console::Wait},
      {"help", "[REQUEST]", kConsole, "lists the requests, or explains one", "help start", &Console::Help},
      {"quit-host", "", kConsole, "stops the command and ends", "quit-host", &Console::QuitHost},
      {"exit", "", kConsole, "the same", "exit", &Console::QuitHost},
  };
  return requests;
}

const Console::Request* Console::Find(const std::string& name) {
  const auto found = std::ranges::find(Requests(), name, &Request::name);
  return found == Requests().end() ? nullptr : &*found;
}

void Console::Execute(const std::string& line) {
  Words words = SplitWords(line);
  if (words.empty() || words[0][0] == '#') return;
  const Request* const request = Find(words[0]);
  if (request == nullptr) {
    Complain("unknown request '" + words[0] + "'; 'help' lists them");
    return;
  }
  words.erase(words.begin());
  try {
    (this->*request->run)(words);
  } catch (const BadRequest& problem) {
    Complain(request->name + ": " + problem.what() + "; expected: " + Usage(*request));
  }
}

void Console::Complain(const std::string& problem) {
  static const bool colour = ErrorsInColour();
  std::fprintf(stderr, "%stdlhost: %s%s\n", colour ? "\033[31m" : "", problem.c_str(), colour ? "\033[0m" : "");
}

void Console::Saw(const Event& event) {
  if (awaited_ && KindOf(event.notification) == *awaited_) paused_until_ = {};
}

std::vector<std::string> Console::Completions(const Words& words) const {
  std::vector<std::string> result;
  if (words.empty() || (words.size() == 1 && words[0] == "help")) {
    for (const Request& request : Requests()) result.push_back(request.name);
    return result;
  }
  const Request* const request = Find(words[0]);
  const std::string usage = request != nullptr ? request->usage : "";
  const bool pids = usage.find("PID") != std::string::npos;
  const bool windows = usage.find("WID") != std::string::npos;
  host_.model().Read([&](const ModelState& state) {
    for (const auto& [pid, running] : state.applications) {
      if (pids) result.push_back(std::to_string(pid));
      for (const auto& [id, window] : running.windows) {
        if (windows) result.push_back(Format("0x%x", id));
      }
    }
    const auto is_option = [](const std::string& word) { return word.starts_with("--"); };
    const bool application =
        usage.find("APP") != std::string::npos && std::all_of(words.begin() + 1, words.end(), is_option);
    if (application && state.menu) {
      for (const MenuEntry& entry : state.menu->entries) result.push_back(entry.name);
    }
  });
  if (usage.find("MESSAGE") != std::string::npos) {
    for (std::size_t i = 0; i < kMessageKinds; ++i) result.emplace_back(KindName(static_cast<MessageKind>(i)));
  }
  return result;
}

void Console::Print(const std::string& text) const {
  std::fputs(text.c_str(), stdout);
  if (text.empty() || text.back() != '\n') std::fputc('\n', stdout);
  std::fflush(stdout);
}

void Console::Send(HostCommand command) {
  std::fprintf(stderr, "tdlhost: queued %s\n", Describe(command).c_str());
  host_.Send(std::move(command));
}

std::string Console::Usage(const Request& request) {
  return request.usage[0] == '\0' ? request.name : request.name + " " + request.usage;
}

void Console::Help(const Words& words) {
  Need(words, 0, 1);
  std::string text;
  if (!words.empty()) {
    const Request* const request = Find(words[0]);
    if (request == nullptr) throw BadRequest("no request is called '" + words[0] + "'");
    text = Format("%s\n  %s\n  For example: %s\n", Usage(*request).c_str(), request->what, request->example);
  } else {
    const char* group = "";
    for (const Request& request : Requests()) {
      if (std::strcmp(group, request.group) != 0) text += Format("%s:\n", request.group);
      group = request.group;
      text += Format("  %-53s %s\n", Usage(request).c_str(), request.what);
    }
  }
  text +=
      "PID: a process id, WID: a window id, as 'windows' prints them. MESSAGE: a name as it is printed (add-run, "
      "fetch,\n"
      "...) or a command code; without it any message is meant. Words with blanks stand in double quotes.\n";
  Print(text);
}

void Console::Apps(const Words&) {
  const ModelState state = host_.model().Snapshot();
  Print(style_ == OutputStyle::kJson ? ApplicationsToJson(state) : RenderApplications(state));
}

void Console::Windows(const Words&) {
  const ModelState state = host_.model().Snapshot();
  Print(style_ == OutputStyle::kJson ? ApplicationsToJson(state) : RenderWindows(state));
}

void Console::Menu(const Words& words) {
  Words rest = words;
  const bool json = TakeFlag(rest, "--json") || style_ == OutputStyle::kJson;
  Need(rest, 0, 0);
  const AppMenu menu = host_.model().Snapshot().menu.value_or(AppMenu{});
  Print(json ? MenuToJson(menu) : RenderMenu(menu));
}

void Console::Status(const Words&) {
  const ModelState state = host_.model().Snapshot();
  const std::size_t waiting = host_.CommandsWaiting();
  Print(style_ == OutputStyle::kJson ? StatusToJson(state, waiting) : RenderStatus(state, waiting));
}

std::string Console::ResolveApplication(const std::string& name) const {
  std::string path = name;
  host_.model().Read([&](const ModelState& state) {
    if (!state.menu || name.find('/') != std::string::npos) return;
    for (const MenuEntry& entry : state.menu->entries) {
      if (entry.name == name) path = entry.path;
    }
  });
  return path;
}

void Console::StartApp(const Words& words) {
  Words rest = words;
  const bool fixed = TakeFlag(rest, "--fixed");
  const bool fields = TakeFlag(rest, "--fields");
  const bool behind = TakeFlag(rest, "--behind");
  Need(rest, 1);
  if (fixed + fields + behind > 1) throw BadRequest("only one layout can be used");
  const std::string application = ResolveApplication(rest[0]);
  const Words documents(rest.begin() + 1, rest.end());
  auto command = StartCommand(behind   ? StartLayout::kFieldsBehindFixed
                              : fields ? StartLayout::kFields
                                       : StartLayout::kFixed,
                              application, documents);
  if (!command && fixed) throw BadRequest("the fixed layout takes one document and texts of at most 261 characters");
  if (!command) command = StartCommand(StartLayout::kFields, application, documents);
  Send(std::move(*command));
}

void Console::Activate(const Words& words) {
  Need(words, 1, 1);
  Send(ActivateWindowCommand(Number(words[0])));
}

void Console::ActivateApps(const Words& words) {
  Words rest = words;
  std::uint32_t code = host::kActivateApps;
  const auto option = std::find(rest.begin(), rest.end(), "--code");
  if (option != rest.end()) {
    if (option + 1 == rest.end()) throw BadRequest("--code needs 109 or 138");
    code = Number(*(option + 1));
    if (code != host::kActivateApps && code != kActivateAppsAlternative) throw BadRequest("--code needs 109 or 138");
    rest.erase(option, option + 2);
  }
  Need(rest, 1);
  const auto pids = Numbers(rest);
  Send(pids.size() == 1 ? ActivateOneAppCommand(pids[0], code) : ActivateAppsCommand(pids, code));
}

void Console::Hide(const Words& words) {
  Words parts[3];  // process ids, excepted windows, context values
  std::size_t part = 0;
  for (const std::string& word : words) {
    if (word == "--except") {
      part = 1;
    } else if (word == "--context") {
      part = 2;
    } else {
      parts[part].push_back(word);
    }
  }
  Need(parts[0], 1);
  if (!parts[2].empty()) Need(parts[2], 2, 2);
  const auto pids = Numbers(parts[0]);
  const auto context = Numbers(parts[2]);
  if (pids.size() == 1 && parts[1].empty() && context.empty()) {
    Send(HideOneCommand(pids[0]));
  } else {
    Send(HideCommand(pids, Numbers(parts[1]), context.empty() ? 0 : context[0], context.empty() ? 0 : context[1]));
  }
}

void Console::Quit(const Words& words) {
  Words rest = words;
  const Force force = TakeFlag(rest, "--force") ? Force::kYes : Force::kNo;
  Need(rest, 1, 1);
  Send(QuitCommand(Number(rest[0]), force));
}

void Console::Reset(const Words& words) {
  Need(words, 0, 0);
  Send(ResetCommand());
}

void Console::Raw(const Words& words) {
  std::string digits;
  for (const std::string& word : words) digits += word;
  if (digits.empty() || digits.size() % 2 != 0 ||
      digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
    throw BadRequest("an even number of hexadecimal digits is needed");
  }
  Bytes bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  }
  Send(RawCommand(std::move(bytes)));
}

void Console::IconOf(const Words& words) {
  Need(words, 2, 2);
  const ModelState state = host_.model().Snapshot();
  const Window* window = state.FindWindow(Number(words[0]));
  if (window == nullptr) throw BadRequest("no window " + words[0]);
  std::string error;
  if (!SaveIcon(window->icon, words[1], error)) throw BadRequest(error);
}

void Console::Icons(const Words& words) {
  Need(words, 1, 1);
  if (std::error_code error; !std::filesystem::is_directory(words[0], error)) {
    throw BadRequest("'" + words[0] + "' is not a folder");
  }
  const ModelState state = host_.model().Snapshot();
  std::size_t saved = 0;
  const auto save = [&](const std::string& stem, const Icon& icon) {
    if (icon.IsEmpty()) return;
    const std::string error = SaveIconIn(words[0], stem, icon);
    if (!error.empty()) throw BadRequest(error);
    ++saved;
  };
  for (const auto& [pid, application] : state.applications) {
    for (const auto& [id, window] : application.windows) {
      save(Format("window-%x", id), window.icon);
      if (window.small_icon) save(Format("window-%x-small", id), *window.small_icon);
    }
  }
  if (state.menu) {
    for (std::size_t i = 0; i < state.menu->entries.size(); ++i) {
      if (state.menu->entries[i].icon) save(Format("menu-%zu", i), *state.menu->entries[i].icon);
    }
  }
  std::fprintf(stderr, "tdlhost: saved %zu icon(s)\n", saved);
}

void Console::AddFault(const Words& words, FaultAction action) {
  Need(words, 1, 2);
  Fault fault;
  fault.action = action;
  fault.times = Number(words[0]);
  if (words.size() > 1) fault.kind = Kind(words[1]);
  host_.faults().Add(fault);
}

void Console::Delay(const Words& words) {
  Need(words, 1, 2);
  const std::chrono::milliseconds delay(Number(words[0]));
  host_.faults().SetDelay(delay, words.size() > 1 ? std::optional(Kind(words[1])) : std::nullopt);
}

void Console::Wait(const Words& words) {
  Need(words, 1, 2);
  const std::chrono::seconds time(Number(words[0]));
  awaited_ = words.size() > 1 ? std::optional(Kind(words[1])) : std::nullopt;
  paused_until_ = std::chrono::steady_clock::now() + time;
}

void Console::QuitHost(const Words&) {
  quit_ = true;
}

std::string SaveIconIn(const std::string& directory, const std::string& stem, const Icon& icon) {
  std::string error;
  SaveIcon(icon, directory + "/" + stem + IconExtension(icon), error);
  return error;
}

std::string SaveIconsOf(const Event& event, const std::string& directory) {
  std::string error;
  const auto save = [&](const std::string& stem, const Icon& icon) {
    if (error.empty() && !icon.IsEmpty()) {
      error = SaveIconIn(directory, Format("%llu-", static_cast<unsigned long long>(event.sequence)) + stem, icon);
    }
  };
  if (const auto* run = std::get_if<AddRun>(&event.notification)) {
    save(Format("window-%x", run->window), run->icon);
    if (run->small_icon) save(Format("window-%x-small", run->window), *run->small_icon);
  } else if (const auto* update = std::get_if<UpdateAppIcon>(&event.notification)) {
    save(Format("window-%x", update->window), update->icon);
  } else if (const auto* menu = std::get_if<AppMenu>(&event.notification)) {
    for (std::size_t i = 0; i < menu->entries.size(); ++i) {
      if (menu->entries[i].icon) save(Format("menu-%zu", i), *menu->entries[i].icon);
    }
  }
  return error;
}

}  // namespace qel::host
