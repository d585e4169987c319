#include "apps/host_command_block.h"

#include <gtest/gtest.h>

#include <string>

#include "host_command_builder.h"

namespace qel::test {
namespace {

template <typename Value>
std::string List(const std::vector<Value>& values) {
  std::string text;
  for (const Value& value : values) {
    if constexpr (std::is_same_v<Value, std::string>) {
      text += " " + value;
    } else {
      text += " " + std::to_string(value);
    }
  }
  return text;
}

struct Describe {
  std::string operator()(const ResetCommand&) const { return "reset"; }
  std::string operator()(const StartAppCommand& start) const {
    return "start '" + start.app + "'" + (start.document ? " with '" + *start.document + "'" : "") +
           List(start.documents);
  }
  std::string operator()(const QuitAppCommand& quit) const {
    return "quit " + std::to_string(quit.pid) + (quit.force ? " by force" : "");
  }
  std::string operator()(const HideAppsCommand& hide) const {
    return "hide" + List(hide.pids) + " except" + List(hide.excluded_clients) + " context " +
           std::to_string(hide.context_a) + " " + std::to_string(hide.context_b);
  }
  std::string operator()(const ActivateAppsCommand& activate) const { return "activate" + List(activate.pids); }
  std::string operator()(const ActivateWindowCommand& activate) const {
    return "activate window " + std::to_string(activate.window);
  }
};

// Decodes a copy that ends where its allocation ends, so that the sanitizer sees every byte read too many.
std::string Decoded(const Bytes& block) {
  const Bytes received(block.begin(), block.end());
  const auto command = HostCommandBlock(received).Decode();
  return command ? std::visit(Describe{}, *command) : "nothing";
}

Bytes With(Bytes block, std::size_t offset, std::uint32_t value) {
  const Bytes word = Words({value});
  for (std::size_t i = 0; i < word.size() && offset + i < block.size(); ++i) {
    block[offset + i] = word[i];
  }
  return block;
}

struct Case {
  Bytes block;
  std::string expected;
};

const std::vector<Field> kStartFields{
    {0x200B, Text("/bin/other")}, {0x2016, Text("/a b")}, {7, Text("?")}, {0x200B, Text("/bin/app")}, {0x2016, {}}};
const std::vector<Field> kHideFields{{0x2010, Words({5})},
                                     {0x200F, Words({70, 0, 71, 0}) + Text("odd")},
                                     {0x2006, Words({11, 12})},
                                     {0x2011, Words({6, 99})},
                                     {0x2006, Text("xyz")}};
const std::vector<Field> kTwoLists{{7, {}}, {0x2006, Words({11, 0xFFFFFFFE})}, {0x2006, Words({13})}};

const std::vector<Case> kValid{
    {Command(1), "reset"},
    {StartFixed("/bin/app", "//Mac/Home/a"), "start '/bin/app' with '//Mac/Home/a'"},
    {StartFixed(std::string(261, 'x'), ""), "start '" + std::string(261, 'x') + "' with ''"},
    {StartMarked(kStartFields), "start '/bin/app' /a b "},
    {StartLong("/bin/other", kStartFields), "start '/bin/app' /a b "},
    {StartMarked({}), "start ''"},
    {StartMarked({{0x200B, Text(std::string_view("/bin/app\0-x", 11))}}), "start '/bin/app'"},
    {Command(107, Words({4711})), "quit 4711"},
    {Command(107, Words({0xFFFFFFFF}), 0x21), "quit -1 by force"},
    {Command(108, Words({4711})), "hide 4711 except context 0 0"},
    {AppsCommand(108, 9, kHideFields), "hide 11 12 except 70 71 context 5 6"},
    {AppsCommand(108, 9, {{0x200F, Words({70, 0})}, {0x2010, Text("abc")}, {0x2011, Words({3})}}),
     "hide 9 except 70 context 0 3"},
    {AppsCommand(109, 9, kTwoLists), "activate 11 -2"},
    {AppsCommand(138, 9, kTwoLists), "activate 11 -2"},
    {AppsCommand(109, 9, {{0x2006, Text("xyz")}, {0x2006, Words({13})}}), "activate 9"},
    {AppsCommand(109, 9, {{0x2010, Words({13})}}), "activate 9"},
    {Command(109, Words({9, 0, 0, 36})), "activate 9"},
    {Command(111, Words({0x2400001})), "activate window 37748737"},
};

TEST(HostCommandBlock, DecodesEveryLayout) {
  for (const Case& valid : kValid) {
    EXPECT_EQ(Decoded(valid.block), valid.expected);
    EXPECT_EQ(Decoded(valid.block + Bytes(4096)), valid.expected) << "in a larger buffer";
  }
}

TEST(HostCommandBlock, RefusesWhatIsNoCommand) {
  const std::vector<Case> cases{
      {Command(0), "nothing"},
      {Command(110), "nothing"},
      {Command(126, Words({20})), "nothing"},
      {Command(137), "nothing"},
      {Command(139), "nothing"},
      {Command(0xFFFFFFFF), "nothing"},
      {Command(106, Words({0xFFFFFFFF})), "nothing"},                 // 24 bytes
      {Command(106, Bytes(5)), "nothing"},                            // neither layout
      {Command(106, WideText("/bin/app") + Bytes(521)), "nothing"},   // one byte short
      {With(StartFixed("/bin/app", ""), 16, 0xFFFFFFEC), "nothing"},  // a size that wraps to zero
      {With(Command(107, Words({4711})), 16, 5), "nothing"},          // longer than received
      {With(Command(107, Words({4711})), 16, 2), "quit 4711"},        // 4711 fits into the two bytes named
      {With(Command(107, Words({0x4711 << 16})), 16, 2), "quit 0"},   // bytes behind the payload count as zero
      {With(AppsCommand(108, 9, kHideFields), 32, 0xFFFFFFF8), "hide 9 except context 0 0"},
      {With(AppsCommand(109, 9, kTwoLists), 32, 4), "activate 9"},
      {With(AppsCommand(109, 9, kTwoLists), 40, 0xBAD), "activate 9"},               // magic
      {With(AppsCommand(109, 9, kTwoLists), 48, 0xFFFFFFFF), "activate 9"},          // field length
      {With(AppsCommand(108, 9, kHideFields), 72, 9), "hide 9 except context 5 0"},  // second field's index
      {With(StartMarked(kStartFields), 24, 0xFFFFFFFF), "start ''"},                 // buffer size
      {StartMarked({{0x200B, Text("/bin/app")}}) + Bytes(1), "start '/bin/app'"},    // a byte behind the block
  };
  for (const Case& refused : cases) {
    EXPECT_EQ(Decoded(refused.block), refused.expected) << ::testing::PrintToString(refused.block.size());
  }
  EXPECT_FALSE(HostCommandBlock(Words({1, 2, 0xFFFFFFFF, 0, 0})).HoldsCommand());
  EXPECT_TRUE(HostCommandBlock(Words({1, 2, 0xFFFFFFFE, 0, 0})).HoldsCommand());
}

// Each valid command cut at every length, once as it is and once with a size that claims the cut was meant; and with
// each of its words replaced. Nothing outside is read, and no program is started that the command does not name.
TEST(HostCommandBlock, SurvivesDamage) {
  const std::vector<std::uint32_t> hostile{0, 1, 19, 35, 0x7FFFFFFF, 0x80000000, 0xFFFFFFEC, 0xFFFFFFFF};
  for (const Case& valid : kValid) {
    for (std::size_t size = 0; size < valid.block.size(); ++size) {
      const Bytes cut(valid.block.begin(), valid.block.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(Decoded(cut), "nothing");
      if (size >= kHostCommandHeaderSize) {
        const std::string decoded = Decoded(With(cut, 16, static_cast<std::uint32_t>(size - 20)));
        EXPECT_TRUE(!decoded.starts_with("start") || decoded.starts_with("start ''") ||
                    decoded.starts_with("start '/bin/app'") || decoded.starts_with("start '/bin/other'"))
            << decoded;
      }
    }
    for (std::size_t offset = 0; offset < valid.block.size(); offset += 4) {
      for (const std::uint32_t value : hostile) {
        Decoded(With(valid.block, offset, value));
      }
    }
  }
}

}  // namespace
}  // namespace qel::test
