#include "appmenu/key_file.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

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
  KeyMatcher(const std::string& key, std::string* value) : key_(key), value_(value) {
    if (key.find_first_of("^.[]$()|*+?{}\\") == std::string::npos && !key.empty()) {
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
  std::optional<char> first() const { return expression_ ? std::nullopt : std::optional(key_.front()); }

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

  const std::string& key_;
  std::string* value_;
  bool valid_ = true;
  std::unique_ptr<regex_t, FreeExpression> expression_;  // null: the key is a plain text
};

// Takes the pieces of a file one after the other.
class KeyFileReader {
 public:
  explicit KeyFileReader(KeyFileValues& values) : values_(values) {}

  // `piece` holds no newline. False when the reading must end.
  bool Take(std::string_view piece) {
    if (piece.empty()) {
      return true;
    }
    const char first = piece.front();
    if (first == '[' || IsSpace(first)) {
      if (const std::optional<std::string_view> group = GroupName(piece)) {
        return BeginGroup(*group);
      }
    }
    if (wanted_first_[static_cast<unsigned char>(first)]) {
      for (const KeyMatcher& matcher : matchers_) {
        if (matcher.Take(piece)) {
          break;
        }
      }
    }
    return true;
  }

 private:
  bool BeginGroup(std::string_view name) {
    matchers_.clear();
    wanted_first_.fill(false);
    const auto group = values_.find(std::string(name));
    if (group == values_.end()) {
      return true;
    }
    matchers_.reserve(group->second.size());
    for (auto& [key, value] : group->second) {
      const KeyMatcher& matcher = matchers_.emplace_back(key, &value);
      if (!matcher.valid()) {
        LogError(kModuleAgent, "Error: Failed to compile regex for record '%s'", key.c_str());
        return false;
      }
      if (const std::optional<char> first = matcher.first()) {
        wanted_first_[static_cast<unsigned char>(*first)] = true;
      } else {
        wanted_first_.fill(true);
      }
    }
    return true;
  }

  KeyFileValues& values_;
  std::vector<KeyMatcher> matchers_;      // of the current group, in key order
  std::array<bool, 256> wanted_first_{};  // characters with which a line for some matcher may begin
};

}  // namespace

bool ReadKeyFile(const std::string& path, KeyFileValues& values) {
  RegularFile file(path);
  KeyFileReader reader(values);
  std::array<char, kBufferSize> buffer;
  std::size_t kept = 0;  // bytes at the beginning of the buffer that belong to a piece not yet complete
  std::size_t read = 0;
  for (bool more = true; more && read < kMaxFile;) {
    const std::size_t got = file.Read(std::span(buffer).subspan(kept));
    read += got;
    more = got > 0;
    std::string_view text(buffer.data(), kept + got);
    while (!text.empty()) {
      const std::size_t newline = text.substr(0, kMaxPiece).find('\n');
      const bool ended = newline != std::string_view::npos;
      if (!ended && more && text.size() < kMaxPiece) {
        break;
      }
      const std::size_t size = ended ? newline : std::min(text.size(), kMaxPiece);
      if (!reader.Take(text.substr(0, size))) {
        return true;
      }
      text.remove_prefix(ended ? size + 1 : size);
    }
    kept = text.size();
    std::memmove(buffer.data(), text.data(), kept);
  }
  return file.is_open();
}

}  // namespace qel
