// Exec lines of desktop entries: the input is the document up to the first newline, then the line.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "appmenu/command_line.h"
#include "apps/exec_arguments.h"
#include "support/fuzzed_data.h"

namespace {

using qel::fuzz::Expect;

// A simple splitter: one character after the other, with the text of the current argument.
bool SplitPlainly(const std::string& line, std::vector<std::string>& arguments) {
  bool quoted = false;
  std::string current;
  char before = '\0';
  for (const char c : line) {
    const bool is_quote = c == '"' && !(quoted && before == '\\');
    const bool is_space = c == ' ' && !quoted;
    if ((is_quote && quoted) || (is_space && !current.empty())) {  // a quoted argument may be empty
      arguments.push_back(current);
    }
    if (is_quote || is_space) {
      current.clear();
      quoted = quoted != is_quote;
    } else {
      current += c;
    }
    before = c;
  }
  if (!quoted && !current.empty()) {
    arguments.push_back(current);
  }
  return !quoted;
}

std::string UnescapePlainly(const std::string& token) {
  std::string text;
  std::size_t i = 0;
  while (i < token.size()) {
    const std::string two = token.substr(i, 2);
    if (two == "%%") {
      text += '%';
    } else if (two.size() == 2 && two[0] == '\\') {
      text += two == "\\s" ? ' ' : two == "\\t" ? '\t' : two[1];
    } else {
      text += token[i];
      --i;
    }
    i += 2;
  }
  return text;
}

std::vector<std::string> ArgumentsPlainly(const std::string& line, const std::string& document) {
  std::vector<std::string> tokens;
  if (!SplitPlainly(line, tokens)) {
    return {};
  }
  std::vector<std::string> arguments;
  bool taken = document.empty();
  for (const std::string& token : tokens) {
    const std::string text = UnescapePlainly(token);
    if (text == "%f" || text == "%F" || text == "%u" || text == "%U") {
      if (!taken && arguments.empty()) {
        return {};
      }
      if (!taken) {
        arguments.push_back(document);
        taken = true;
      }
    } else if (text == "%c" && !arguments.empty()) {
      arguments.push_back(arguments[0]);
    } else if (text.size() != 2 || text[0] != '%' || std::string("dDnNikmv").find(text[1]) == std::string::npos) {
      arguments.push_back(text);
    }
  }
  return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  qel::fuzz::FuzzedData input(data, size);
  const std::string document = input.Text('\n');
  const std::string line = input.Rest();
  std::vector<std::string> tokens;
  if (!SplitPlainly(line, tokens)) {
    tokens.clear();
  }
  Expect(qel::SplitCommandLine(line) == tokens, "the simple splitter finds the same arguments");
  Expect(qel::ExecArguments(line, document) == ArgumentsPlainly(line, document),
         "the simple decoder finds the same arguments");
  return 0;
}
