#include "appmenu/key_file.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "appmenu/key_marks.h"
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

// Whether each character stands for itself in every regular expression.
bool IsPlain(std::string_view key) {
  static constexpr auto plain = [] {
    std::array<bool, 256> table{};
    for (const char c : std::string_view("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_")) {
      table[static_cast<unsigned char>(c)] = true;
    }
    return table;
  }();
  return std::all_of(key.begin(), key.end(), [](char c) { return plain[static_cast<unsigned char>(c)]; });
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
    if (!key.empty() && IsPlain(key)) {
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

  // Whether the key is a plain text.
  bool is_text() const { return valid_ && expression_ == nullptr; }

  // Whether a key that is a text stands before `key_end`, at the beginning of a line. `begin` is one, too.
  bool KeyEndsAt(const char* key_end, const char* begin) const {
    return key_end[-1] == key_.back() && static_cast<std::size_t>(key_end - begin) >= key_.size() &&
           key_end[-1 - static_cast<std::ptrdiff_t>(key_.size())] == '\n' &&
           std::memcmp(key_end - key_.size(), key_.data(), key_.size()) == 0;
  }

  // Stores what stands behind the "=" of a line.
  void StoreValue(std::string_view text) const { value_->assign(UpToNul(SkipSpace(text))); }

  // Stores the value of a line that has the key. True when it has.
  bool TakeLine(std::string_view line) const {
    if (expression_) {
      return TakeByExpression(std::string(UpToNul(line)));
    }
    if (!line.starts_with(key_)) {
      return false;
    }
    const std::string_view rest = SkipSpace(line.substr(key_.size()));
    if (!rest.starts_with('=')) {
      return false;
    }
    StoreValue(rest.substr(1));
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

  std::string_view key_;
  std::string* value_;
  bool valid_ = true;
  std::unique_ptr<regex_t, FreeExpression> expression_;  // null: the key is a plain text
};

// Finds the wanted values of a file.
class KeyFileReader {
 public:
  explicit KeyFileReader(KeyFileValues& values) : values_(values) {}

  // Takes lines of at most kMaxPiece bytes, the last of which may lack its newline. A newline stands before them, and
  // kMarkBlock readable bytes behind them.
  void TakeLines(const char* begin, const char* end) {
    if (!by_line_) {
      begin = TakeMarkedLines(begin, end);
    }
    while (begin != end) {
      const char* const line_end = LineEnd(begin, end);
      TakeLine({begin, line_end});
      begin = line_end == end ? end : line_end + 1;
    }
  }

 private:
  static const char* LineEnd(const char* begin, const char* end) {
    const void* newline = std::memchr(begin, '\n', static_cast<std::size_t>(end - begin));
    return newline != nullptr ? static_cast<const char*>(newline) : end;
  }

  // Returns from where on the lines have to be taken one by one: `end`, if not at all.
  const char* TakeMarkedLines(const char* begin, const char* end) {
    const char* rest = end;
    ForEachMark(begin, end, [&](const char* mark) {
      const char* const resume = TakeMark(mark, begin, end);
      if (by_line_) {
        rest = resume;
        return end;
      }
      return resume;
    });
    return rest;
  }

  // Takes the line of a mark if it names a group or has a wanted key. Returns where to look for the next mark.
  const char* TakeMark(const char* mark, const char* begin, const char* end) {
    const char* before = mark;  // the white space that stands there
    while (before[-1] != '\n' && IsSpace(before[-1])) {
      --before;
    }
    if (*mark == '[') {
      if (before[-1] == '\n') {
        const char* const line_end = LineEnd(mark, end);
        if (const std::optional<std::string_view> group = GroupName({before, line_end})) {
          BeginGroup(*group);
          return line_end;
        }
      }
      return mark + 1;
    }
    for (const KeyMatcher& matcher : matchers_) {
      if (matcher.KeyEndsAt(before, begin)) {
        const char* const line_end = LineEnd(mark, end);
        matcher.StoreValue({mark + 1, line_end});
        return line_end;
      }
    }
    return mark + 1;
  }

  void TakeLine(std::string_view line) {
    if (const std::optional<std::string_view> group = GroupName(line)) {
      BeginGroup(*group);
      return;
    }
    for (const KeyMatcher& matcher : matchers_) {
      if (matcher.TakeLine(line)) {
        return;
      }
    }
  }

  void BeginGroup(std::string_view name) {
    matchers_.clear();
    const auto group = invalid_ ? values_.end() : values_.find(std::string(name));
    if (group == values_.end()) {
      return;
    }
    matchers_.reserve(group->second.size());
    for (auto& [key, value] : group->second) {
      const KeyMatcher& matcher = matchers_.emplace_back(key, &value);
      if (!matcher.valid()) {
        LogError(kModuleAgent, "Error: Failed to compile regex for record '%s'", key.c_str());
        matchers_.clear();
        invalid_ = true;  // nothing more is taken
        return;
      }
      by_line_ = by_line_ || !matcher.is_text();
    }
  }

  KeyFileValues& values_;
  std::vector<KeyMatcher> matchers_;  // of the current group, in key order
  bool by_line_ = false;              // a key that is no plain text may match any line
  bool invalid_ = false;
};

// The end of as many whole lines as there are, none longer than a piece, or else of a piece of a longer line. `begin`
// when there is neither, only the beginning of a line.
char* EndOfPart(char* begin, char* end) {
  char* part_end = begin;
  while (static_cast<std::size_t>(end - part_end) >= kMaxPiece) {
    void* const newline = memrchr(part_end, '\n', kMaxPiece);
    if (newline == nullptr) {
      return part_end != begin ? part_end : begin + kMaxPiece;
    }
    part_end = static_cast<char*>(newline) + 1;
  }
  return part_end;
}

}  // namespace

bool ReadKeyFile(const std::string& path, KeyFileValues& values) {
  RegularFile file(path);
  ReadKeyFile(file, values);
  return file.is_open();
}

void ReadKeyFile(RegularFile& file, KeyFileValues& values) {
  KeyFileReader reader(values);
  std::array<char, 1 + kBufferSize + kMarkBlock> buffer;
  char* const text = buffer.data() + 1;
  const auto take = [&](char* begin, char* end) {
    begin[-1] = '\n';  // what stood there was taken before
    reader.TakeLines(begin, end);
  };
  std::size_t kept = 0;  // bytes at the beginning of the text that have not been taken
  bool complete = false;
  for (std::size_t read = 0; !complete;) {
    const std::size_t wanted = kBufferSize - kept;
    const std::size_t got = file.Read({text + kept, wanted});
    read += got;
    complete = got < wanted || read >= kMaxFile;
    char* const end = text + kept + got;
    std::memset(end, 0, kMarkBlock);
    char* begin = text;
    for (char* part_end = EndOfPart(begin, end); part_end != begin; part_end = EndOfPart(begin, end)) {
      take(begin, part_end);
      begin = part_end;
    }
    if (complete) {
      take(begin, end);
    }
    kept = static_cast<std::size_t>(end - begin);
    std::memmove(text, begin, kept);
  }
}

}  // namespace qel
