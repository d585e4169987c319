#include "host/line_input.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <sstream>

// These headers need <cstdio> before them.
#include <readline/history.h>
#include <readline/readline.h>

namespace qel::host {
namespace {

LineInput* g_input = nullptr;  // readline's callbacks have no parameter for it

void OnLine(char* line) {
  g_input->TakeEdited(line);
}

// The words before the word that is completed. Words with spaces are in double quotes.
std::vector<std::string> WordsBefore(int start) {
  std::istringstream before(std::string(rl_line_buffer, static_cast<std::size_t>(start)));
  std::vector<std::string> words;
  for (std::string word; before >> std::quoted(word);) words.push_back(word);
  return words;
}

char** Complete(const char* text, int start, int) {
  rl_attempted_completion_over = 1;
  static std::vector<std::string> matches;
  matches.clear();
  // `start` is after an opening quotation mark, which is not part of the text.
  const bool quoted = rl_completion_quote_character != 0;
  for (std::string& candidate : g_input->completer()(WordsBefore(quoted ? start - 1 : start))) {
    if (candidate.starts_with(text)) matches.push_back(std::move(candidate));
  }
  const auto has_blank = [](const std::string& match) { return match.find(' ') != std::string::npos; };
  if (!quoted && std::ranges::any_of(matches, has_blank)) {
    for (std::string& match : matches) match = '"' + match + (matches.size() == 1 ? "\"" : "");
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
  rl_catch_signals = 0;  // the program reads signals from a descriptor
  rl_attempted_completion_function = Complete;
  rl_completer_word_break_characters = " \t";
  rl_completer_quote_characters = "\"";
}

LineInput::~LineInput() {
  if (editing_) rl_callback_handler_remove();
  g_input = nullptr;
}

void LineInput::OnReadable() {
  if (terminal_) {
    if (editing_) rl_callback_read_char();
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
  rl_callback_handler_remove();
  editing_ = shown_ = false;
  if (line == nullptr) {
    at_end_ = true;
    std::puts("");
    return;
  }
  if (*line != '\0') add_history(line);
  pending_ += line;
  pending_ += '\n';
  std::free(line);
}

void LineInput::HidePrompt() {
  if (shown_) rl_clear_visible_line();
  shown_ = false;
}

void LineInput::ShowPrompt() {
  if (!terminal_ || shown_ || at_end_) return;
  shown_ = true;
  if (editing_) {
    rl_forced_update_display();
    return;
  }
  editing_ = true;
  rl_callback_handler_install("tdlhost> ", OnLine);
}

}  // namespace qel::host
