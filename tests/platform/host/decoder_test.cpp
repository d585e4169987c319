#include "host/decoder.h"

#include <gtest/gtest.h>

#include <functional>

#include "messages.h"

namespace qel::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary

std::string Joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text + "\n";
  return all;
}

template <typename T>
T Clean(const GateRequest& request) {
  Decoded decoded = Decode(request);
  EXPECT_EQ(Joined(decoded.violations), "");
  const T* message = std::get_if<T>(&decoded.notification);
  EXPECT_NE(message, nullptr) << KindName(KindOf(decoded.notification));
  return message ? *message : T{};
}

TEST(Decoder, ReadsServiceMessagesInEveryLayout) {
  Clean<Probe>(ProbeRequest());
  struct Case {
    GateRequest request;
    ServiceLayout layout;
    std::string name;
  };
  const std::string large(600, 'n');
  for (const Case& c : {Case{InBuffers(RegisterMessage("svc")), ServiceLayout::kBuffers, "svc"},
                        Case{Inline(RegisterMessage("svc")), ServiceLayout::kInline, "svc"},
                        Case{InlineHead(RegisterMessage(large)), ServiceLayout::kInlineHead, large}}) {
    const auto service = Clean<RegisterService>(c.request);
    EXPECT_EQ(service.layout, c.layout);
    EXPECT_EQ(service.name, c.name);
    EXPECT_EQ(service.title, "A title");
    ASSERT_TRUE(service.version);
    EXPECT_EQ(service.version->build, 7U);
    EXPECT_EQ(service.version->product, 3U);
  }
  EXPECT_EQ(Clean<UnregisterService>(InBuffers(UnregisterMessage("svc"))).name, "svc");
}

// Fields that whole sessions do not show, or not with every value.
TEST(Decoder, ReadsGuestCommands) {
  const auto run = Clean<AddRun>(AddRunRequest(12, 0x3400007, "A file", 3, 2, true));
  EXPECT_EQ(run.window, 0x3400007U);
  EXPECT_EQ(run.name + "|" + run.path + "|" + run.title, "Editor|/usr/bin/editor|A file");
  EXPECT_EQ(LoadU32(*run.icon.bytes, 20), 0xFF000005U);
  EXPECT_EQ(run.small_icon->ByteCount(), 1024U);
  Bytes full;  // a text up to the field's end, which begins with U+1F600 as a surrogate pair
  while (full.size() < 522) AppendBytes(full, full.empty() ? Bytes{0x3D, 0xD8, 0, 0xDE} : Bytes{'x', 0});
  EXPECT_EQ(Clean<WindowTitle>(WindowTitleRequest(1, 2, full)).title, "\xF0\x9F\x98\x80" + std::string(259, 'x'));
  EXPECT_EQ(Clean<RmvRun>(RmvRunRequest(5, 6)).window, 6U);
  EXPECT_EQ(Clean<RmvRunByPath>(RmvRunByPathRequest(9, "/bin/x")).path, "/bin/x");
  EXPECT_EQ(Clean<UpdateAppIcon>(UpdateAppIconRequest(1, 2, 1, 2, Bytes(8))).icon.height, 2U);
  EXPECT_FALSE(Clean<UpdateAppIcon>(UpdateAppIconRequest(1, 2, 9, 1, Bytes(9))).icon.argb);
  EXPECT_TRUE(Clean<Fetch>(FetchRequest(true, 5000)).large);
  EXPECT_TRUE(Clean<AppMenu>(AppMenuRequest({})).entries.empty());
}

// Each case spoils one thing in a valid message; the decoder has to name it.
TEST(Decoder, NamesEachViolation) {
  using Spoil = std::function<void(GateRequest&)>;
  struct Case {
    const char* expected;
    GateRequest request;
    Spoil spoil;
  };
  const auto word = [](std::size_t buffer, std::size_t offset, std::uint32_t value) -> Spoil {
    return [=](GateRequest& r) { StoreU32(r.buffers[buffer].data, offset, value); };
  };
  const auto resize = [](std::size_t buffer, std::size_t size) -> Spoil {
    return [=](GateRequest& r) {
      r.buffers[buffer].data.resize(size);
      r.buffers[buffer].size = static_cast<std::uint32_t>(size);
    };
  };
  const GateRequest run = AddRunRequest(1, 2, "t", 2, 2, true);
  const GateRequest menu = AppMenuRequest({MenuEntryFields("/a", "A", "L", Bytes(4))});
  const GateRequest service = InBuffers(RegisterMessage("svc"));
  // Places in the applications menu: the first entry's buffer begins at 20 + 12 + 12.
  constexpr std::size_t kEntry = 44;
  const Case cases[] = {
      {"status on submission", run, [](GateRequest& r) { r.status = 1; }},
      {"reserved word", run, [](GateRequest& r) { r.reserved = 1; }},
      {"unknown code 0x8303", run, [](GateRequest& r) { r.code = 0x8303; }},
      {"high word", run, [](GateRequest& r) { r.buffers[0].address_high = 1; }},
      {"unused flags", run, [](GateRequest& r) { r.buffers[1].flags = 3; }},
      {"block's writable flag", run, [](GateRequest& r) { r.buffers[0].flags = 1; }},
      {"reply area's writable flag", run, [](GateRequest& r) { r.buffers[1].flags = 0; }},
      {"inline byte count", run, [](GateRequest& r) { r.inline_data.resize(4); }},
      {"buffer count", run, [](GateRequest& r) { r.buffers.push_back({}); }},
      {"reply area on submission", run, word(1, 100, 1)},
      {"version", run, word(0, 4, 3)},
      {"guest command: the reserved word", run, word(0, 8, 1)},
      {"header's flags", run, word(0, 12, 0x10)},
      {"body length", run, word(0, 16, 1602)},
      {"offset 24", run, word(0, 24, 5)},
      {"behind the end of the text", run, word(0, 40 + 100, 0x41)},
      {"unpaired surrogate 0xd800", run, word(0, 40, 0xD800)},
      {"icon 4294967295x2", run, word(0, 1614, UINT32_MAX)},
      {"small icon: the width", run, word(0, 1638, 17)},
      {"icon 16x16: 1023 of 1024", run, resize(0, 1622 + 16 + 8 + 1023)},
      {"block's size", ToolStateRequest(true), resize(0, 19)},
      {"body length", RmvRunByPathRequest(1, "/x"), word(0, 16, 539)},
      {"unknown code 103", RmvRunRequest(1, 2), word(0, 0, 103)},
      {"list of 4 bytes", HiddenWindowsRequest(1, 2, Bytes(4)), [](GateRequest&) {}},
      {"word at offset 32", HiddenWindowsRequest(1, 2, Bytes(8)), word(0, 32, 0)},
      {"high word", HiddenWindowsRequest(1, 2, Words({5, 1})), [](GateRequest&) {}},
      {"empty icon", UpdateAppIconRequest(1, 2, 0, 0, {}), [](GateRequest&) {}},
      {"height is 2, not 1", AddRunRequest(1, 2, "t", 2, 2, false), word(0, 36, 1 << 10)},
      {"header's flags", FetchRequest(false, 4096), word(0, 12, 8)},
      {"payload size", menu, word(0, 20, 1)},
      {"magic", menu, word(0, 24, 0xACDCBABA)},
      {"last word", menu, word(0, 28, 1)},
      {"has the index 1", menu, word(0, 40, 1)},
      {"reaches beyond", menu, word(0, 32, UINT32_MAX)},
      {"unexpected field 0x2002", menu, word(0, 36, 0x2002)},
      {"0x2003 stands where 0x2007", menu, word(0, kEntry + 16, 0x2003)},
      {"zero byte within", menu, [](GateRequest& r) { r.buffers[0].data[kEntry + 24] = 0; }},
      {"menu entry: the field 0x200d is missing",
       AppMenuRequest({FieldBuffer({{0x2007, TextBytes("/a")}, {0x2003, TextBytes("A")}})}), [](GateRequest&) {}},
      {"request length", service, word(0, 8, 1)},
      {"reply capacity", service, word(0, 12, 8)},
      {"host's fields", service, word(0, 20, 1)},
      {"message prefix", service, word(1, 0, 15)},
      {"field 0x2001: a word", service, word(1, 16 + 12 + 12 + 4, 4)},
      {"buffer 1: the writable flag", service, [](GateRequest& r) { r.buffers[1].flags = 1; }},
      {"field 0x2191 is missing", service, word(1, service.buffers[1].data.size() - 11, 0x20CC)},
      {"sent inline", Inline(RegisterMessage(std::string(600, 'n'))), [](GateRequest&) {}},
      {"an inline sub-header with only", InlineHead(RegisterMessage("svc")), [](GateRequest&) {}},
      {"name is empty", InBuffers(RegisterMessage("")), [](GateRequest&) {}},
      {"not a copy", ProbeRequest(), word(0, 4, 1)},
      {"probe: the buffer count", ProbeRequest(), [](GateRequest& r) { r.buffers.pop_back(); }},
  };
  for (Case c : cases) {
    ASSERT_EQ(Joined(Decode(c.request).violations).find("status on"), std::string::npos);
    c.spoil(c.request);
    const std::string found = Joined(Decode(c.request).violations);
    EXPECT_NE(found.find(c.expected), std::string::npos) << "expected: " << c.expected << "\nfound: " << found;
  }
}

// Every truncation and many spoilt bytes of every message: nothing is read outside of it, and nothing that is cut off
// passes for valid.
TEST(Decoder, SurvivesAnyBytes) {
  const GateRequest samples[] = {
      ProbeRequest(),
      InBuffers(RegisterMessage("svc")),
      Inline(UnregisterMessage("svc")),
      AddRunRequest(1, 2, "t", 2, 2, true),
      HiddenWindowsRequest(1, 2, Words({7, 0})),
      WindowTitleRequest(1, 2, Text16("t")),
      UpdateAppIconRequest(1, 2, 2, 2, Bytes(16)),
      AppMenuRequest({MenuEntryFields("/a", "A", "L", Bytes(4))}),
      FetchRequest(false, 4096),
  };
  for (const GateRequest& sample : samples) {
    // What of a request is looked at: the bytes of the inline data, or of a buffer.
    for (std::size_t part = 0; part <= sample.buffers.size(); ++part) {
      const auto bytes_of = [part](GateRequest& r) -> Bytes& {
        return part == 0 ? r.inline_data : r.buffers[part - 1].data;
      };
      GateRequest spoilt = sample;
      Bytes& bytes = bytes_of(spoilt);
      for (std::size_t i = 0; i < bytes.size(); ++i) {
        GateRequest cut = sample;
        bytes_of(cut).resize(i);
        if (part != 0) cut.buffers[part - 1].size = static_cast<std::uint32_t>(i);
        EXPECT_FALSE(Decode(cut).violations.empty()) << "part " << part << " cut to " << i;
        const std::uint8_t before = bytes[i];
        for (const std::uint8_t byte : Bytes{0x00, 0x7F, 0x80, 0xFF}) {
          bytes[i] = byte;
          Decode(spoilt);
        }
        bytes[i] = before;
      }
    }
  }
}

}  // namespace
}  // namespace qel::host
