#include "appmenu/key_file.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "appmenu/newlines.h"
#include "appmenu/regular_file.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr std::size_t kMaxPiece = 4095;
constexpr std::size_t kMaxFile = std::size_t{64} << 20;
constexpr std::size_t kBufferSize = std::size_t{32} << 10;  // most files fit and are read at once

constexpr std::string_view kSpace = " \t\n\v\f\r";

bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Whether a character stands for itself in every regular expression.
bool IsPlain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

std::string_view SkipSpace(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) {
    text.remove_prefix(1);
  }
  return text;
}

// What the C library sees of a piece.
std::string_view UpToNul(std::string_view piece) {
  return piece.substr(0, piece.find('\0'));
}

// The name in a line of the form "^[[:space:]]*\[(.*)\][[:space:]]*$".
std::optional<std::string_view> GroupName(std::string_view piece) {
  std::string_view line = SkipSpace(piece);
  if (line.empty() || line.front() != '[') {
    return std::nullopt;
  }
  line = UpToNul(line);
  line = line.substr(0, line.find_last_not_of(kSpace) + 1);
  if (line.size() < 2 || line.back() != ']') {
    return std::nullopt;
  }
  return line.substr(1, line.size() - 2);
}

// Finds the value in lines of the form "^KEY[[:space:]]*=[[:space:]]*(.*)$" and stores it.
class KeyMatcher {
 public:
  KeyMatcher(const std::string& key, std::string* value)
      : first_(key.empty() ? '\0' : key.front()), key_(key), value_(value) {
    if (!key.empty() && std::all_of(key.begin(), key.end(), IsPlain)) {
      return;
    }
    const std::string pattern = "^" + key + "[[:space:]]*=[[:space:]]*(.*)$";
    auto compiled = std::make_unique<regex_t>();
    valid_ = regcomp(compiled.get(), pattern.c_str(), REG_EXTENDED) == 0;
    if (valid_) {
      expression_.reset(compiled.release());
    }
  }

  // False when the key is no regular expression; the matcher is then of no use.
  bool valid() const { return valid_; }

  // The character that begins every matching line; nothing when that cannot be told.
  std::optional<char> first() const { return expression_ ? std::nullopt : std::optional(first_); }

  // True when the line has the key.
  bool Take(std::string_view piece) const {
    if (expression_) {
      return TakeByExpression(std::string(UpToNul(piece)));
    }
    if (!piece.starts_with(key_)) {
      return false;
    }
    std::string_view rest = SkipSpace(piece.substr(key_.size()));
    if (rest.empty() || rest.front() != '=') {
      return false;
    }
    value_->assign(UpToNul(SkipSpace(rest.substr(1))));
    return true;
  }

 private:
  struct FreeExpression {
    void operator()(regex_t* expression) const {
      regfree(expression);
      delete expression;
    }
  };

  bool TakeByExpression(const std::string& line) const {
    std::array<regmatch_t, 2> match{};
    if (regexec(expression_.get(), line.c_str(), match.size(), match.data(), 0) != 0 || match[1].rm_so < 0) {
      return false;
    }
    value_->assign(line, static_cast<std::size_t>(match[1].rm_so),
                   static_cast<std::size_t>(match[1].rm_eo - match[1].rm_so));
    return true;
  }

  const char first_;
  const std::string_view key_;
  std::string* value_;
  bool valid_ = true;
  std::unique_ptr<regex_t, FreeExpression> expression_;  // null: the key is a plain text
};

// Takes the lines of a file one after the other. Most lines of a key file are translations that nobody wants: they are
// told by their first character, or by the one where a key would end.
class KeyFileReader {
 public:
  explicit KeyFileReader(KeyFileValues& values) : values_(values) { ForgetKeys(); }

  // `line` holds no newline.
  void TakeLine(std::string_view line) {
    if (line.size() > kMaxPiece) {
      line.remove_prefix(TakeWholePieces(line));
    }
    if (!line.empty() && MayMatter(line)) {
      TakePiece(line);
    }
  }

  // Takes as much of a line as fills whole pieces, and returns how much that is.
  std::size_t TakeWholePieces(std::string_view line) {
    std::size_t taken = 0;
    for (; line.size() - taken >= kMaxPiece; taken += kMaxPiece) {
      TakePiece(line.substr(taken, kMaxPiece));
    }
    return taken;
  }

 private:
  // False for lines that neither name a group nor have a wanted key. Translations of wanted keys fail here too, as a
  // bracket stands where the key should end.
  bool MayMatter(std::string_view line) const {
    for (std::uint64_t ends = key_ends_[static_cast<unsigned char>(line.front())]; ends != 0; ends &= ends - 1) {
      const auto end = static_cast<std::size_t>(std::countr_zero(ends));
      if (end == kAnywhere || (end < line.size() && (line[end] == '=' || IsSpace(line[end])))) {
        return true;
      }
    }
    return false;
  }

  void TakePiece(std::string_view piece) {
    if (piece.empty()) {
      return;
    }
    if (piece.front() == '[' || IsSpace(piece.front())) {
      if (const std::optional<std::string_view> group = GroupName(piece)) {
        BeginGroup(*group);
        return;
      }
    }
    for (const KeyMatcher& matcher : matchers_) {
      if (matcher.Take(piece)) {
        return;
      }
    }
  }

  void BeginGroup(std::string_view name) {
    ForgetKeys();
    const auto group = values_.find(std::string(name));
    if (group == values_.end()) {
      return;
    }
    matchers_.reserve(group->second.size());
    for (auto& [key, value] : group->second) {
      const KeyMatcher& matcher = matchers_.emplace_back(key, &value);
      if (!matcher.valid()) {
        LogError(kModuleAgent, "Error: Failed to compile regex for record '%s'", key.c_str());
        matchers_.clear();
        key_ends_.fill(0);  // nothing more is taken
        return;
      }
      const std::optional<char> first = matcher.first();
      expressions_ = expressions_ || !first;
      if (first) {
        key_ends_[static_cast<unsigned char>(*first)] |= std::uint64_t{1} << std::min(key.size(), kAnywhere);
      }
    }
    if (expressions_) {
      key_ends_.fill(std::uint64_t{1} << kAnywhere);
    }
  }

  // From here on only lines that may name a group are looked at.
  void ForgetKeys() {
    if (std::exchange(expressions_, false)) {
      key_ends_.fill(0);
    }
    for (const KeyMatcher& matcher : matchers_) {
      if (const std::optional<char> first = matcher.first()) {
        key_ends_[static_cast<unsigned char>(*first)] = 0;
      }
    }
    matchers_.clear();
    for (const char c : kSpace) {
      key_ends_[static_cast<unsigned char>(c)] = std::uint64_t{1} << kAnywhere;
    }
    key_ends_['['] = std::uint64_t{1} << kAnywhere;
  }

  static constexpr std::size_t kAnywhere = 63;  // stands for "cannot be told"

  KeyFileValues& values_;
  std::vector<KeyMatcher> matchers_;           // of the current group, in key order
  std::array<std::uint64_t, 256> key_ends_{};  // by first character of a line: where a wanted key may end, as bits
  bool expressions_ = false;                   // whether some matcher is no plain text
};

}  // namespace

bool ReadKeyFile(const std::string& path, KeyFileValues& values) {
  RegularFile file(path);
  KeyFileReader reader(values);
  std::array<char, kBufferSize> buffer;
  std::size_t kept = 0;  // bytes at the beginning of the buffer that belong to a line not yet complete
  std::size_t read = 0;
  while (read < kMaxFile) {
    const std::size_t got = file.Read(std::span(buffer).subspan(kept));
    if (got == 0) {
      break;
    }
    read += got;
    const char* const end = buffer.data() + kept + got;
    const char* line = buffer.data();
    ForEachNewline(line, end, [&](const char* newline) {
      reader.TakeLine({line, newline});
      line = newline + 1;
    });
    line += reader.TakeWholePieces({line, end});
    kept = static_cast<std::size_t>(end - line);
    std::memmove(buffer.data(), line, kept);
  }
  reader.TakeLine({buffer.data(), kept});
  return file.is_open();
}

}  // namespace qel
