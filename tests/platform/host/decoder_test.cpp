#include "host/decoder.h"

#include <gtest/gtest.h>

#include <functional>

#include "messages.h"
#include "tools_gate/guest_commands.h"

namespace qel::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary

GateBuffer Buffer(Bytes data, std::uint32_t flags) {
  const auto size = static_cast<std::uint32_t>(data.size());
  return {0, 0, size, flags, std::move(data)};
}

GateRequest Request(std::uint32_t code, Bytes inline_data, std::vector<GateBuffer> buffers) {
  GateRequest request;
  request.code = code;
  request.inline_data = std::move(inline_data);
  request.buffers = std::move(buffers);
  return request;
}

// Service messages, and their three layouts.
Bytes SubHeader(std::size_t length, std::uint32_t reply) {
  return Words({32, 0, static_cast<std::uint32_t>(length), reply, 0, 0, 0, 0});
}

GateRequest ProbeRequest() {
  const Bytes head = SubHeader(16, 16);
  return Request(kServiceRequest, Join({head, Bytes(16)}), {Buffer(head, 1), Buffer(Bytes(16), 1)});
}

Bytes Message(const std::vector<std::pair<std::uint32_t, Bytes>>& fields) {
  return Join({Words({14, 0, 1, 0}), FieldBuffer(fields)});
}

Bytes RegisterMessage(const std::string& name) {
  const Bytes version = Join({Words({1, 0, 7, 0x80000000, 1, 0, 3}), Bytes{9}, Bytes(11)});
  return Message(
      {{0x2001, Words({1, 3})}, {0x20CA, TextBytes("A title")}, {0x20CB, version}, {0x2191, TextBytes(name)}});
}

GateRequest InBuffers(const Bytes& message) {
  return Request(kServiceRequest, {}, {Buffer(SubHeader(message.size(), 0), 1), Buffer(message, 0)});
}

GateRequest Inline(const Bytes& message) {
  return Request(kServiceRequest, Join({SubHeader(message.size(), 0), message}), {});
}

GateRequest InlineHead(const Bytes& message) {
  return Request(kServiceRequest, SubHeader(message.size(), 0), {Buffer(message, 0)});
}

// A guest command as the agent sends it.
GateRequest Sent(const std::function<void(const GuestCommands&)>& send) {
  GateRequest request;
  send(GuestCommands([&request](TgRequest& sent) {
    request.code = sent.code;
    for (const TgBuffer& buffer : sent.buffers) {
      const auto* const data = reinterpret_cast<const std::uint8_t*>(buffer.data);
      request.buffers.push_back(Buffer({data, data + buffer.size}, buffer.writable ? 1 : 0));
    }
    return true;
  }));
  return request;
}

IconImage Icon(std::uint32_t width, std::uint32_t height, bool argb = true) {
  return {std::vector<std::byte>(width * height * (argb ? 4 : 1), std::byte{7}), height, width, argb};
}

GateRequest AddRunRequest(const IconImage& icon, const IconImage& small) {
  return Sent([&](const GuestCommands& guest) {
    guest.GuestCmdAddRun(0x3400007, 12, "Editor", "/usr/bin/editor", "A file", icon, small);
  });
}

GateRequest HiddenWindowsRequest() {
  constexpr std::uint32_t kWindows[] = {5, 6};
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdHiddenWindows(1, 2, kWindows); });
}

GateRequest TitleRequest(const std::string& title) {
  setenv("LC_ALL", "C.UTF-8", 1);
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdWindowTitle(2, 1, title); });
}

GateRequest IconRequest(const IconImage& icon) {
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdUpdateAppIcon(2, 1, icon); });
}

GateRequest MenuRequest() {
  constexpr std::byte kIcon[4] = {};
  const AppMenuItem item{.path = "/a", .name = "A", .location = "L", .modified = 77, .icon = kIcon};
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdAppMenu({&item, 1}); });
}

GateRequest FetchRequest(bool large, std::uint32_t room) {
  const Bytes block = Words({0, 2, 0, large ? 0x80000000 : 0x80000008, 0});
  return Request(kGuestCommandRequest, {}, {Buffer(block, 0), Buffer(Bytes(room), 1)});
}

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
  EXPECT_EQ(Clean<UnregisterService>(
                InBuffers(Message({{0x2001, Words({1, 3})}, {0x20CF, Words({2})}, {0x2191, TextBytes("svc")}})))
                .name,
            "svc");
}

// Fields that whole sessions do not show, or not with every value.
TEST(Decoder, ReadsGuestCommands) {
  const auto run = Clean<AddRun>(AddRunRequest(Icon(3, 2), Icon(16, 16)));
  EXPECT_EQ(run.window, 0x3400007U);
  EXPECT_EQ(run.name + "|" + run.path + "|" + run.title, "Editor|/usr/bin/editor|A file");
  EXPECT_EQ(*run.icon.bytes, Bytes(24, 7));
  EXPECT_EQ(run.small_icon->ByteCount(), 1024U);
  // A text up to the field's end, which begins with a surrogate pair.
  const std::string full = "\xF0\x9F\x98\x80" + std::string(259, 'x');
  EXPECT_EQ(Clean<WindowTitle>(TitleRequest(full)).title, full);
  EXPECT_EQ(Clean<UpdateAppIcon>(IconRequest(Icon(1, 2))).icon.height, 2U);
  EXPECT_FALSE(Clean<UpdateAppIcon>(IconRequest(Icon(9, 1, false))).icon.argb);
  EXPECT_TRUE(Clean<Fetch>(FetchRequest(true, 5000)).large);
  EXPECT_TRUE(Clean<AppMenu>(Sent([](const GuestCommands& guest) { guest.GuestCmdAppMenu({}); })).entries.empty());
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
  const GateRequest run = AddRunRequest(Icon(2, 2), Icon(16, 16));
  const GateRequest menu = MenuRequest();
  const GateRequest hidden = HiddenWindowsRequest();
  const GateRequest tool = Sent([](const GuestCommands& guest) { guest.GuestCmdToolState(true); });
  const GateRequest gone = Sent([](const GuestCommands& guest) { guest.GuestCmdRmvRunByPath(9, "/bin/x"); });
  const GateRequest service = InBuffers(RegisterMessage("svc"));
  // Places in the applications menu: the first entry's buffer begins at 20 + 12 + 12.
  constexpr std::size_t kEntry = 44;
  const std::size_t kHidden = hidden.buffers[0].data.size() - 16;  // the list of windows
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
      {"block's size", tool, resize(0, 19)},
      {"body length", gone, word(0, 16, 539)},
      {"unknown code 103", tool, word(0, 0, 103)},
      {"list of 12 bytes", hidden, word(0, kHidden - 12, 12)},
      {"word at offset 32", hidden, word(0, 32, 0)},
      {"high word", hidden, word(0, kHidden + 4, 1)},
      {"empty icon", IconRequest(Icon(0, 0)), [](GateRequest&) {}},
      {"height is 2, not 1", AddRunRequest(Icon(2, 2), {}), word(0, 36, 1 << 10)},
      {"header's flags", FetchRequest(false, 4096), word(0, 12, 8)},
      {"payload size", menu, word(0, 20, 1)},
      {"magic", menu, word(0, 24, 0xACDCBABA)},
      {"last word", menu, word(0, 28, 1)},
      {"has the index 1", menu, word(0, 40, 1)},
      {"reaches beyond", menu, word(0, 32, UINT32_MAX)},
      {"unexpected field 0x2002", menu, word(0, 36, 0x2002)},
      {"0x2003 stands where 0x2007", menu, word(0, kEntry + 16, 0x2003)},
      {"zero byte within", menu, [](GateRequest& r) { r.buffers[0].data[kEntry + 24] = 0; }},
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
      Inline(RegisterMessage("svc")),
      AddRunRequest(Icon(2, 2), Icon(16, 16)),
      HiddenWindowsRequest(),
      TitleRequest("t"),
      IconRequest(Icon(2, 2)),
      MenuRequest(),
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
