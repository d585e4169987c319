#include "files/key_file.h"

#include <regex.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "files/regular_file.h"
#include "log/log.h"

namespace qel {
namespace {

constexpr std::size_t kMaxPiece = 4095;
constexpr std::size_t kTail = sizeof(std::uint64_t);
constexpr std::size_t kMarkBlock = 64;
constexpr std::size_t kMaxFile = std::size_t{64} << 20;
constexpr std::size_t kMaxLargeFiles = std::size_t{256} << 20;

constexpr std::string_view kSpace = " \t\n\v\f\r";

bool IsSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Whether no character of the key has a special meaning in a regular expression.
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

// A mark is a "=" that does not follow a "]", or a "[" that follows white space or a control character. Every group
// header and every line with a key without a locale contains a mark. Most lines of a desktop file are translations
// ("Name[de]=..."); they contain no mark, unless their text does.
//
// Calls `use` with the position of each mark in [begin, end), in order. `use` returns the position from which it wants
// further marks. The byte before `begin` and the kMarkBlock bytes from `end` on must be readable.
template <typename Use>
void ForEachMark(const char* begin, const char* end, Use use) {
  const char* resume = begin;
  std::array<unsigned char, kMarkBlock> marks;  // not zero where a mark is
  for (const char* block = begin; block < end; block += kMarkBlock) {
    // No exit from the loop, no branches, and only bytes: so the compiler can vectorise it.
    unsigned char any = 0;
    for (std::size_t i = 0; i < kMarkBlock; ++i) {
      const auto c = static_cast<unsigned char>(block[i]);
      const auto before = static_cast<unsigned char>(*(block + i - 1));
      const auto equals = static_cast<unsigned char>(c == '=' ? before ^ ']' : 0);
      const auto bracket = static_cast<unsigned char>(c == '[' && before <= ' ' ? 1 : 0);
      marks[i] = equals | bracket;
      any |= marks[i];
    }
    if (any == 0 || resume >= block + kMarkBlock) {
      continue;
    }
    for (std::size_t i = 0; i < kMarkBlock; i += sizeof(std::uint64_t)) {
      std::uint64_t some = 0;
      std::memcpy(&some, marks.data() + i, sizeof some);
      for (std::size_t k = i; some != 0 && k < i + sizeof some; ++k) {
        if (marks[k] != 0 && block + k >= resume && block + k < end) {
          resume = use(block + k);
        }
      }
    }
  }
}

// The part of a piece that functions for C strings would see.
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
      const std::string line_begin = '\n' + key;
      const std::size_t size = std::min(line_begin.size(), kTail);
      std::memcpy(reinterpret_cast<char*>(&tail_) + kTail - size, line_begin.data() + line_begin.size() - size, size);
      std::memset(reinterpret_cast<char*>(&tail_mask_) + kTail - size, 0xff, size);
      return;
    }
    const std::string pattern = "^" + key + "[[:space:]]*=[[:space:]]*(.*)$";
    auto compiled = std::make_unique<regex_t>();
    valid_ = regcomp(compiled.get(), pattern.c_str(), REG_EXTENDED) == 0;
    if (valid_) {
      expression_.reset(compiled.release());
    }
  }

  std::string_view key() const { return key_; }

  // False when the key is not a valid regular expression; then the matcher must not be used.
  bool is_valid() const { return valid_; }

  // Whether the key is plain text, without special characters.
  bool is_text() const { return valid_ && expression_ == nullptr; }

  // Whether the line up to `key_end` is exactly the key, which must be plain text. `begin` is the beginning of a line;
  // the kTail bytes before it must be readable.
  bool KeyEndsAt(const char* key_end, const char* begin) const {
    std::uint64_t tail = 0;
    std::memcpy(&tail, key_end - kTail, kTail);
    if ((tail & tail_mask_) != tail_) {
      return false;
    }
    return key_.size() < kTail || (static_cast<std::size_t>(key_end - begin) >= key_.size() &&
                                   key_end[-1 - static_cast<std::ptrdiff_t>(key_.size())] == '\n' &&
                                   std::memcmp(key_end - key_.size(), key_.data(), key_.size()) == 0);
  }

  // Stores the text after the "=" of a line; the caller has cut it at the first NUL byte.
  void StoreValue(std::string_view text) const { value_->assign(SkipSpace(text)); }

  // Stores the value of the line when the line has the key. Returns whether it has.
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
    StoreValue(UpToNul(rest.substr(1)));
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
  std::uint64_t tail_ = 0;       // for plain text: the last bytes of a newline followed by the key
  std::uint64_t tail_mask_ = 0;  // the bytes of tail_ that are used
  bool valid_ = true;
  std::unique_ptr<regex_t, FreeExpression> expression_;  // null: the key is plain text
};

}  // namespace

// The wanted keys of one group.
class KeyGroup {
 public:
  KeyGroup(const std::string& name, std::map<std::string, std::string>& values) : name_(name) {
    matchers_.reserve(values.size());
    for (auto& [key, value] : values) {
      const KeyMatcher& matcher = matchers_.emplace_back(key, &value);
      by_line_ = by_line_ || !matcher.is_text();
    }
  }

  std::string_view name() const { return name_; }

  // In key order.
  const std::vector<KeyMatcher>& matchers() const { return matchers_; }

  // Whether a key is not plain text. Such a key may match any line, so all lines must be looked at.
  bool by_line() const { return by_line_; }

 private:
  std::string_view name_;
  std::vector<KeyMatcher> matchers_;
  bool by_line_ = false;
};

namespace {

// Takes the wanted values from the text of one file.
class KeyFileScan {
 public:
  explicit KeyFileScan(const std::vector<KeyGroup>& groups) : groups_(groups) {}

  // Reads lines of at most kMaxPiece bytes; the last one may have no newline. The byte before them must be a newline.
  // The kTail bytes before and the kMarkBlock bytes after them must be readable.
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

  // Reads the lines that contain a mark. Returns the position from which the lines must be read one by one; `end` when
  // that is not needed.
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

  // Reads the line of a mark when it is a group header or has a wanted key. Returns where to look for the next mark.
  const char* TakeMark(const char* mark, const char* begin, const char* end) {
    if (*mark == '=' && group_ == nullptr) {
      return mark + 1;
    }
    const char* before = mark;  // the beginning of the white space before the mark
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
    for (const KeyMatcher& matcher : group_->matchers()) {
      if (matcher.KeyEndsAt(before, begin)) {
        // strchrnul() stops at the NUL bytes after the text.
        const char* const value_end = std::min<const char*>(strchrnul(mark + 1, '\n'), end);
        matcher.StoreValue({mark + 1, value_end});
        return value_end;
      }
    }
    return mark + 1;
  }

  void TakeLine(std::string_view line) {
    if (const std::optional<std::string_view> group = GroupName(line)) {
      BeginGroup(*group);
    } else if (group_ != nullptr) {
      std::ranges::any_of(group_->matchers(), [&](const KeyMatcher& matcher) { return matcher.TakeLine(line); });
    }
  }

  void BeginGroup(std::string_view name) {
    const auto group = std::ranges::find(groups_, name, &KeyGroup::name);
    group_ = group != groups_.end() && !invalid_ ? &*group : nullptr;
    if (group_ == nullptr) {
      return;
    }
    by_line_ = by_line_ || group_->by_line();
    const auto bad = std::ranges::find(group_->matchers(), false, &KeyMatcher::is_valid);
    if (bad != group_->matchers().end()) {
      LogError(kModuleAgent, "Error: Failed to compile regex for record '%s'", std::string(bad->key()).c_str());
      group_ = nullptr;
      invalid_ = true;  // no more values are read
    }
  }

  const std::vector<KeyGroup>& groups_;
  const KeyGroup* group_ = nullptr;  // the group of the current line; null when no key of it is wanted
  bool by_line_ = false;             // a key of one of the groups found so far may match any line
  bool invalid_ = false;
};

// Returns the end of the part that can be read now: as many whole lines as possible, none longer than kMaxPiece. When
// the first line is longer, its first kMaxPiece bytes. When there is only an incomplete line, `begin`.
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

class KeyFileReader::Buffer {
 public:
  static constexpr std::size_t kSize = std::size_t{32} << 10;  // most files fit and are read at once

  Buffer() { std::fill_n(bytes_.begin(), kTail, '\n'); }

  char* text() { return bytes_.data() + kTail; }
  std::span<char> Behind(std::size_t kept) { return {text() + kept, kSize - kept}; }

 private:
  std::array<char, kTail + kSize + kMarkBlock> bytes_;  // the text, and the bytes before and after it that a scan reads
};

KeyFileReader::KeyFileReader(KeyFileValues& values)
    : groups_([&values] {
        std::vector<KeyGroup> groups;
        groups.reserve(values.size());
        for (auto& [name, keys] : values) {
          groups.emplace_back(name, keys);
        }
        return groups;
      }()),
      buffer_(std::make_unique_for_overwrite<Buffer>()),
      large_files_left_(kMaxLargeFiles) {}

KeyFileReader::~KeyFileReader() = default;

void KeyFileReader::Read(RegularFile& file) {
  Buffer& buffer = *buffer_;
  KeyFileScan scan(groups_);
  char* const text = buffer.text();
  const auto take = [&](char* begin, char* end) {
    begin[-1] = '\n';  // the byte before the text has already been processed
    scan.TakeLines(begin, end);
  };
  std::size_t kept = 0;  // bytes at the beginning of the text that have not been processed
  for (std::size_t read = 0;;) {
    const std::size_t room = buffer.Behind(kept).size();
    const std::size_t size = file.Read(buffer.Behind(kept));
    const bool at_end = size < room;
    if (read > 0) {
      large_files_left_ -= std::min(size, large_files_left_);
    }
    read += size;
    char* const end = text + kept + size;
    std::memset(end, 0, kMarkBlock);
    char* begin = text;
    for (char* part_end = EndOfPart(begin, end); part_end != begin; part_end = EndOfPart(begin, end)) {
      take(begin, part_end);
      begin = part_end;
    }
    if (at_end) {
      take(begin, end);
      return;
    }
    if (read >= kMaxFile || large_files_left_ == 0) {
      return;  // the incomplete last line is not used
    }
    kept = static_cast<std::size_t>(end - begin);
    std::memmove(text, begin, kept);
  }
}

void ReadKeyFile(const std::string& path, KeyFileValues& values) {
  RegularFile file(path);
  KeyFileReader(values).Read(file);
}

}  // namespace qel
