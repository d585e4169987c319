#include "host/line_input.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

// These want <cstdio> before them.
#include <readline/history.h>
#include <readline/readline.h>

namespace qel::host {
namespace {

LineInput* g_input = nullptr;  // readline's callbacks carry no pointer of ours

void OnLine(char* line) {
  g_input->TakeEdited(line);
}

char** Complete(const char* text, int start, int) {
  rl_attempted_completion_over = 1;
  std::istringstream before(std::string(rl_line_buffer, static_cast<std::size_t>(start)));
  std::vector<std::string> words;
  for (std::string word; before >> word;) words.push_back(word);
  static std::vector<std::string> matches;
  matches.clear();
  for (std::string& candidate : g_input->completer()(words)) {
    if (candidate.compare(0, std::strlen(text), text) == 0) matches.push_back(std::move(candidate));
  }
  return rl_completion_matches(text, [](const char*, int index) -> char* {
    const auto place = static_cast<std::size_t>(index);
    return place < matches.size() ? strdup(matches[place].c_str()) : nullptr;
  });
}

}  // namespace

LineInput::LineInput(Completer completer)
    : completer_(std::move(completer)), terminal_(isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0) {
  g_input = this;
  if (!terminal_) return;
  rl_catch_signals = 0;  // signals come through a descriptor here
  rl_attempted_completion_function = Complete;
  rl_callback_handler_install("tdlhost> ", OnLine);
}

LineInput::~LineInput() {
  if (terminal_) rl_callback_handler_remove();
  g_input = nullptr;
}

void LineInput::OnReadable() {
  if (terminal_) {
    rl_callback_read_char();
    return;
  }
  char bytes[4096];
  const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
  if (size < 0 && errno == EINTR) return;
  if (size <= 0) {
    at_end_ = true;
    if (!pending_.empty() && pending_.back() != '\n') pending_ += '\n';
    return;
  }
  pending_.append(bytes, static_cast<std::size_t>(size));
}

bool LineInput::Next(std::string& line) {
  const std::size_t end = pending_.find('\n');
  if (end == std::string::npos) return false;
  line = pending_.substr(0, end);
  pending_.erase(0, end + 1);
  return true;
}

void LineInput::TakeEdited(char* line) {
  if (line == nullptr) {
    at_end_ = true;
    rl_callback_handler_remove();
    terminal_ = false;
    return;
  }
  if (*line != '\0') add_history(line);
  pending_ += line;
  pending_ += '\n';
  std::free(line);
}

void LineInput::HidePrompt() {
  if (terminal_) rl_clear_visible_line();
}

void LineInput::ShowPrompt() {
  if (!terminal_) return;
  rl_on_new_line();
  rl_redisplay();
}

}  // namespace qel::host
