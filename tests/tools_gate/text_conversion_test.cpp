#include "tools_gate/text_conversion.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "gate_bytes.h"
#include "log/log.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

// The C library's newlocale() leaks memory if LOCPATH is set. Only a test here sets it.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:__argz_add_sep";
}

namespace qel {
namespace {

std::vector<std::byte> ToUtf16(std::string_view text, std::size_t size) {
  std::vector<std::byte> field(size, std::byte{0xEE});
  TextToUtf16(field, text);
  return field;
}

GateBytes Units(std::initializer_list<unsigned> units) {
  GateBytes bytes;
  std::ranges::for_each(units, [&](unsigned unit) { bytes.U16(unit); });
  return bytes;
}

TEST(TextConversionTest, ToUtf16) {
  struct Case {
    const char* locale;
    std::string_view text;
    std::size_t size;
    std::vector<std::byte> expected;
    std::vector<std::string> errors;
  };
  const std::string invalid = ": Invalid or incomplete multibyte or wide character";
  const std::string too_long = "Error: Failed to convert UTF-8 -> UTF-16: Argument list too long";
  for (const Case& c : std::initializer_list<Case>{
           {"C.UTF-8", "a\u00e9\u20ac\U0001F600", 12, Units({'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0}), {}},
           {"C.UTF-8", "ab", 4, Units({'a', 'b'}), {}},
           {"C.UTF-8", "abc", 4, Units({'a', 'b'}), {too_long}},
           {"C.UTF-8", "a\U0001F600", 4, Units({'a', 0}), {too_long}},
           {"C.UTF-8", "a\xFFz", 6, Units({'a', 0, 0}), {"Error: Failed to convert UTF-8 -> UTF-16" + invalid}},
           {"C", "a\u00e9", 6, Units({'a', 0, 0}), {"Error: Failed to convert ANSI_X3.4-1968 -> UTF-16" + invalid}},
           {"no_SUCH.locale", "ab", 6, Units({'a', 'b', 0}), {}},
       }) {
    setenv("LC_ALL", c.locale, 1);
    const test::LogCapture log(0);
    EXPECT_EQ(ToUtf16(c.text, c.size), c.expected) << c.text;
    EXPECT_EQ(log.Texts(), c.errors);
  }
}

TEST(TextConversionTest, FromUtf16) {
  setenv("LC_ALL", "C.UTF-8", 1);
  const test::LogCapture log(0);
  EXPECT_EQ(TextFromUtf16({}), "");
  EXPECT_EQ(TextFromUtf16(Units({'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0, 'x'})), "a\u00e9\u20ac\U0001F600");
  EXPECT_TRUE(log.Texts().empty());
  EXPECT_EQ(TextFromUtf16(GateBytes().U16('a').Zeros(1)), "a");
  EXPECT_TRUE(log.Contains("Error: Failed to convert UTF-16 -> UTF-8: Invalid argument"));
  setenv("LC_ALL", "C", 1);
  EXPECT_EQ(TextFromUtf16(Units({'a', 0xE9})), "a");
  EXPECT_EQ(log.Texts().size(), 2U);
}

TEST(TextConversionTest, UsesANewLocaleOnAllThreadsOnceIconvCanBeOpened) {
  const test::TempDir directory;
  const std::filesystem::path locale = directory.Path() / "latin1";
  setenv("LOCPATH", directory.Path().c_str(), 1);
  const std::string make = "localedef -i en_US -f ISO-8859-1 " + locale.string() + " 2>/dev/null";
  if (std::system(make.c_str()) != 0 && !std::filesystem::exists(locale / "LC_CTYPE")) {
    GTEST_SKIP() << "localedef cannot make an ISO-8859-1 locale here";
  }
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_EQ(ToUtf16("\u00e9", 4), Units({0xE9, 0}));
  setenv("LC_ALL", "latin1", 1);
  const test::LogCapture log(0);
  LogError("m", "Error: the log is open");
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none{.rlim_cur = 3, .rlim_max = limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto untouched = ToUtf16("\xE9", 4);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(untouched, std::vector<std::byte>(4, std::byte{0xEE}));
  EXPECT_TRUE(log.Contains("Error: Failed to initialize iconv ANSI_X3.4-1968 -> UTF-16"));
  const auto check = [] {
    for (int i = 0; i < 500; ++i) {
      EXPECT_EQ(ToUtf16("\xE9", 4), Units({0xE9, 0}));
      EXPECT_EQ(TextFromUtf16(Units({0xE9})), "\xE9");
    }
  };
  std::jthread other(check);
  check();
}

}  // namespace
}  // namespace qel
