#include "host/xpm_image.h"

#include <charconv>
#include <map>
#include <string>
#include <vector>

namespace qel::host {
namespace {

constexpr std::uint32_t kMostPixels = 1024;  // in a row, and in a column
constexpr std::uint32_t kMostColours = 65'536;
constexpr std::uint32_t kMostCharacters = 8;  // that stand for one pixel
constexpr std::uint32_t kUnknownColour = 0xFF808080;

// The texts in double quotes, at most `most` of them.
std::vector<std::string_view> QuotedTexts(std::string_view file, std::size_t most) {
  std::vector<std::string_view> texts;
  std::size_t end = 0;
  while (texts.size() < most) {
    const std::size_t begin = file.find('"', end);
    if (begin == std::string_view::npos) break;
    const std::size_t quote = file.find('"', begin + 1);
    if (quote == std::string_view::npos) break;
    texts.push_back(file.substr(begin + 1, quote - begin - 1));
    end = quote + 1;
  }
  return texts;
}

std::vector<std::string_view> Words(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  std::vector<std::string_view> words;
  for (std::size_t begin = text.find_first_not_of(kBlanks); begin < text.size();) {
    const std::size_t end = std::min(text.find_first_of(kBlanks, begin), text.size());
    words.push_back(text.substr(begin, end - begin));
    begin = text.find_first_not_of(kBlanks, end);
  }
  return words;
}

std::optional<std::uint32_t> Number(std::string_view text, int base = 10) {
  std::uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::uint32_t Colour(std::string_view text) {
  static const std::map<std::string, std::uint32_t> kNames = {
      {"none", 0},           {"black", 0xFF000000},  {"white", 0xFFFFFFFF}, {"red", 0xFFFF0000},  {"green", 0xFF00FF00},
      {"blue", 0xFF0000FF},  {"yellow", 0xFFFFFF00}, {"cyan", 0xFF00FFFF},  {"gray", 0xFFBEBEBE}, {"grey", 0xFFBEBEBE},
      {"brown", 0xFFA52A2A}, {"orange", 0xFFFFA500}, {"navy", 0xFF000080},  {"gold", 0xFFFFD700}, {"pink", 0xFFFFC0CB}};
  if (!text.starts_with('#')) {
    std::string name(text);
    for (char& c : name) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    const auto known = kNames.find(name);
    return known == kNames.end() ? kUnknownColour : known->second;
  }
  text.remove_prefix(1);
  // Red, green and blue have 1 to 4 digits each, of which the first two count; one digit stands for both.
  const std::size_t digits = text.size() / 3;
  if (digits == 0 || digits > 4 || text.size() % 3 != 0) return kUnknownColour;
  std::uint32_t colour = 0xFF;
  for (std::size_t i = 0; i < 3; ++i) {
    const auto part = Number(text.substr(i * digits, std::min<std::size_t>(digits, 2)), 16);
    if (!part) return kUnknownColour;
    colour = colour << 8 | (digits == 1 ? *part * 0x11 : *part);
  }
  return colour;
}

// The colour for a colour screen ("c") in the description of a colour, or else any that is there.
std::uint32_t DescribedColour(std::string_view description) {
  const auto words = Words(description);
  std::uint32_t colour = kUnknownColour;
  for (std::size_t i = 0; i + 1 < words.size(); i += 2) {
    colour = Colour(words[i + 1]);
    if (words[i] == "c") break;
  }
  return colour;
}

}  // namespace

std::optional<Pixels> ReadXpm(std::string_view file) {
  const auto first = QuotedTexts(file, 1);
  if (first.empty()) return std::nullopt;
  std::uint32_t values[4] = {};  // width, height, number of colours, characters for one pixel
  const auto words = Words(first[0]);
  for (std::size_t i = 0; i < 4; ++i) {
    constexpr std::uint32_t kMost[] = {kMostPixels, kMostPixels, kMostColours, kMostCharacters};
    const auto value = i < words.size() ? Number(words[i]) : std::nullopt;
    if (!value || *value == 0 || *value > kMost[i]) return std::nullopt;
    values[i] = *value;
  }
  const auto [width, height, colours, characters] = values;

  const auto texts = QuotedTexts(file, 1 + std::size_t{colours} + height);
  if (texts.size() < 1 + std::size_t{colours} + height) return std::nullopt;
  std::map<std::string_view, std::uint32_t> palette;
  for (std::size_t i = 1; i <= colours; ++i) {
    if (texts[i].size() < characters) return std::nullopt;
    palette[texts[i].substr(0, characters)] = DescribedColour(texts[i].substr(characters));
  }
  Pixels pixels{width, height, {}};
  pixels.bytes.reserve(std::size_t{width} * height * 4);
  for (std::size_t y = 0; y < height; ++y) {
    const std::string_view row = texts[1 + colours + y];
    if (row.size() < std::size_t{width} * characters) return std::nullopt;
    for (std::size_t x = 0; x < width; ++x) {
      const auto colour = palette.find(row.substr(x * characters, characters));
      if (colour == palette.end()) return std::nullopt;
      AppendU32(pixels.bytes, colour->second);
    }
  }
  return pixels;
}

}  // namespace qel::host
