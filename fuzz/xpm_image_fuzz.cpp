// Images in the XPM format: any input is read and compared with a simple reader.
#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/xpm_image.h"
#include "support/fuzzed_data.h"

namespace {

using qel::fuzz::Expect;
using qel::fuzz::Words;
using Texts = std::vector<std::string>;

// The number between 1 and `most`, or 0.
std::size_t Number(const std::string& text, std::size_t most) {
  std::size_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9' || value > most) {
      return 0;
    }
    value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  return value <= most ? value : 0;
}

// The part of a colour that is given by some hexadecimal digits; nothing if they are none.
std::optional<std::uint32_t> Part(std::string digits) {
  digits = digits.size() == 1 ? digits + digits : digits.substr(0, 2);
  if (std::isxdigit(static_cast<unsigned char>(digits[0])) == 0 ||
      std::isxdigit(static_cast<unsigned char>(digits[1])) == 0) {
    return std::nullopt;
  }
  return static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
}

// Nothing for a colour with a name.
std::optional<std::uint32_t> Colour(const std::string& text) {
  constexpr std::uint32_t kGrey = 0xFF808080;
  if (!text.starts_with('#')) {
    return std::nullopt;
  }
  const std::size_t digits = text.size() / 3;
  if (text.size() % 3 != 1 || digits == 0 || digits > 4) {
    return kGrey;
  }
  const auto red = Part(text.substr(1, digits));
  const auto green = Part(text.substr(1 + digits, digits));
  const auto blue = Part(text.substr(1 + 2 * digits, digits));
  return red && green && blue ? 0xFF000000 + *red * 0x10000 + *green * 0x100 + *blue : kGrey;
}

// For a colour screen, or else the last one.
std::string ChosenColour(const Texts& words) {
  std::string chosen = "#";  // damaged, which is grey
  for (std::size_t i = 1; i < words.size(); i += 2) {
    chosen = words[i];
    if (words[i - 1] == "c") {
      break;
    }
  }
  return chosen;
}

struct PlainImage {
  std::size_t width;
  std::size_t height;
  std::vector<std::optional<std::uint32_t>> pixels;
};

std::optional<PlainImage> ReadPlainly(qel::fuzz::FuzzedData file) {
  Texts texts;
  file.Text('"');
  for (std::string rest = file.Rest(); rest.find('"') != rest.npos;) {
    texts.push_back(rest.substr(0, rest.find('"')));
    rest.erase(0, texts.back().size() + 1);
    rest.erase(0, rest.find('"'));
    rest.erase(0, 1);
  }
  const Texts head = texts.empty() ? Texts() : Words(texts[0]);
  if (head.size() < 4) {
    return std::nullopt;
  }
  PlainImage image{Number(head[0], 1024), Number(head[1], 1024), {}};
  const std::size_t colours = Number(head[2], 65'536);
  const std::size_t key = Number(head[3], 8);
  if (image.width == 0 || image.height == 0 || colours == 0 || key == 0 || texts.size() < 1 + colours + image.height) {
    return std::nullopt;
  }
  const Texts palette(texts.begin() + 1, texts.begin() + 1 + static_cast<std::ptrdiff_t>(colours));
  const auto is_short = [key](const std::string& colour) { return colour.size() < key; };
  if (std::ranges::any_of(palette, is_short)) {
    return std::nullopt;
  }
  for (std::size_t i = 0; i < image.width * image.height; ++i) {
    const std::string& row = texts[1 + colours + i / image.width];
    if (row.size() < image.width * key) {
      return std::nullopt;
    }
    // Of several descriptions of a colour the last one counts.
    const std::string pixel = row.substr(i % image.width * key, key);
    const auto colour = std::find_if(palette.rbegin(), palette.rend(),
                                     [&](const std::string& description) { return description.starts_with(pixel); });
    if (colour == palette.rend()) {
      return std::nullopt;
    }
    image.pixels.push_back(Colour(ChosenColour(Words(colour->substr(key)))));
  }
  return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto image = qel::host::ReadXpm({reinterpret_cast<const char*>(data), size});
  const auto expected = ReadPlainly({data, size});
  Expect(image.has_value() == expected.has_value(), "both readers take the same files");
  if (!image) {
    return 0;
  }
  Expect(image->width == expected->width && image->height == expected->height, "the size is the same");
  Expect(image->bytes.size() == expected->pixels.size() * 4, "each pixel has four bytes");
  for (std::size_t i = 0; i < expected->pixels.size(); ++i) {
    const std::uint32_t pixel = qel::host::LoadU32(image->bytes, i * 4);
    // A colour with a name is opaque, or it is "none".
    Expect(expected->pixels[i] ? pixel == expected->pixels[i] : pixel == 0 || pixel >> 24 == 0xFF,
           "the pixels are the same");
  }
  return 0;
}
