#include "apps/exec_arguments.h"

#include "appmenu/command_line.h"

namespace qel {
namespace {

std::string Unescape(std::string_view token) {
  std::string text;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const bool last = i + 1 == token.size();
    if (!last && token[i] == '%' && token[i + 1] == '%') {
      text.push_back('%');
      ++i;
    } else if (!last && token[i] == '\\') {
      const char escaped = token[++i];
      text.push_back(escaped == 's' ? ' ' : escaped == 't' ? '\t' : escaped);
    } else {
      text.push_back(token[i]);
    }
  }
  return text;
}

constexpr std::string_view kDocumentCodes = "fFuU";
constexpr std::string_view kDroppedCodes = "dDnNikmv";
constexpr char kNameCode = 'c';

bool IsOneOf(std::string_view codes, char code) {
  return codes.find(code) != std::string_view::npos;
}

}  // namespace

std::vector<std::string> ExecArguments(std::string_view exec, const std::string& document) {
  std::vector<std::string> arguments;
  bool document_wanted = !document.empty();
  for (const std::string& token : SplitCommandLine(exec)) {
    std::string argument = Unescape(token);
    // A code is recognised after unescaping, so "%%f" is one too.
    const char code = argument.size() == 2 && argument[0] == '%' ? argument[1] : '\0';
    if (IsOneOf(kDocumentCodes, code)) {
      if (!document_wanted) {
        continue;
      }
      if (arguments.empty()) {
        return {};  // a document must never be executed as the program
      }
      document_wanted = false;
      argument = document;
    } else if (IsOneOf(kDroppedCodes, code)) {
      continue;
    } else if (code == kNameCode && !arguments.empty()) {
      argument = arguments.front();
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

}  // namespace qel
