// The decoder of an agent's messages, and the bytes of the host's commands.
#include "messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "host/command_queue.h"
#include "host/decoder.h"
#include "host/host_commands.h"
#include "tools_gate/guest_commands.h"

namespace qel::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the samples are this file's vocabulary

GateBuffer Buffer(Bytes data, std::uint32_t flags) {
  const auto size = static_cast<std::uint32_t>(data.size());
  return {0, 0, size, flags, std::move(data)};
}

GateRequest Request(std::uint32_t code, Bytes inline_data, std::vector<GateBuffer> buffers) {
  return {.code = code, .inline_data = std::move(inline_data), .buffers = std::move(buffers)};
}

// Service messages and their three layouts.
Bytes SubHeader(std::size_t length, std::uint32_t reply) {
  return Words({32, 0, static_cast<std::uint32_t>(length), reply, 0, 0, 0, 0});
}

GateRequest ProbeRequest() {
  const Bytes head = SubHeader(16, 16);
  return Request(kServiceRequest, Join({head, Bytes(16)}), {Buffer(head, 1), Buffer(Bytes(16), 1)});
}

Bytes RegisterMessage(const std::string& name) {
  const Bytes version = Join({Words({1, 0, 7, 0x80000000, 1, 0, 3}), Bytes{9}, Bytes(11)});
  return Join(
      {Words({14, 0, 1, 0}),
       FieldBuffer(
           {{0x2001, Words({1, 3})}, {0x20CA, TextBytes("A title")}, {0x20CB, version}, {0x2191, TextBytes(name)}})});
}

Bytes UnregisterMessage(const std::string& name) {
  return Join(
      {Words({14, 0, 1, 0}), FieldBuffer({{0x2001, Words({1, 3})}, {0x20CF, Words({2})}, {0x2191, TextBytes(name)}})});
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

IconImage Icon(std::uint32_t width, std::uint32_t height) {
  return {std::vector<std::byte>(width * height * 4), height, width, true};
}

GateRequest AddRunRequest(const IconImage& small) {
  return Sent([&](const GuestCommands& guest) {
    guest.GuestCmdAddRun(0x3400007, 12, "Editor", "/usr/bin/editor", "A file", Icon(2, 2), small);
  });
}

GateRequest IconRequest(const IconImage& icon) {
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdUpdateAppIcon(2, 1, icon); });
}

GateRequest MenuRequest() {
  constexpr std::byte kIcon[16] = {};
  const AppMenuItem item{.path = "/a", .name = "A", .location = "L", .modified = 77, .icon = kIcon};
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdAppMenu({&item, 1}); });
}

GateRequest HiddenWindowsRequest() {
  constexpr std::uint32_t kWindows[] = {5, 6};
  return Sent([&](const GuestCommands& guest) { guest.GuestCmdHiddenWindows(1, 2, kWindows); });
}

GateRequest FetchRequest(std::uint32_t flags, std::size_t room) {
  return Request(kGuestCommandRequest, {}, {Buffer(Words({0, 2, 0, flags, 0}), 0), Buffer(Bytes(room), 1)});
}

using Spoil = std::function<void(GateRequest&)>;

// The parts of a request are its buffers and, as the last part, the inline data.
Spoil Resize(std::size_t part, std::size_t size) {
  return [=](GateRequest& r) {
    if (part == r.buffers.size()) {
      r.inline_data.resize(size);
    } else {
      r.buffers[part].data.resize(size);
      r.buffers[part].size = static_cast<std::uint32_t>(size);
    }
  };
}

// Each case makes one thing in a valid message invalid. The decoder must report it. The next test sees most rules.
TEST(Decoder, NamesEachViolation) {
  struct Case {
    const char* expected;
    GateRequest request;
    Spoil spoil;
  };
  const auto word = [](std::size_t buffer, std::size_t offset, std::uint32_t value) -> Spoil {
    return [=](GateRequest& r) { StoreU32(r.buffers[buffer].data, offset, value); };
  };
  const GateRequest run = AddRunRequest(Icon(16, 16));
  const GateRequest menu = MenuRequest();
  const GateRequest hidden = HiddenWindowsRequest();
  const GateRequest service = InBuffers(RegisterMessage("svc"));
  // Offsets in the applications menu: the buffer of the first entry begins at 20 + 12 + 12.
  constexpr std::size_t kEntry = 44;
  constexpr std::size_t kList = 92;     // the offset of the list of hidden windows
  constexpr std::size_t kVersion = 79;  // the offset of the version in a registration
  constexpr std::size_t kName = 119;
  const std::string zeros(16, '\0');
  const Case cases[] = {
      {"unpaired surrogate 0xd800", run, word(0, 40, 0xD800)},
      {"icon 4294967295x2", run, word(0, 1614, UINT32_MAX)},
      {"payload size", menu, word(0, 20, 1)},
      {"magic", menu, word(0, 24, 0xACDCBABA)},
      {"reaches beyond", menu, word(0, 32, UINT32_MAX)},
      {"unexpected field 0x2002", menu, word(0, 36, 0x2002)},
      {"0x2003 stands where 0x2007", menu, word(0, kEntry + 16, 0x2003)},
      {"zero byte within", menu, [](GateRequest& r) { r.buffers[0].data[kEntry + 24] = 0; }},
      {"sent inline", Inline(RegisterMessage(std::string(600, 'n'))), [](GateRequest&) {}},
      {"an inline sub-header with only", InlineHead(RegisterMessage("svc")), [](GateRequest&) {}},
      {"probe: the buffer count", ProbeRequest(), [](GateRequest& r) { r.buffers.pop_back(); }},
      {"neither inline data", service, [](GateRequest& r) { r.buffers.clear(); }},
      {"name is empty", InBuffers(RegisterMessage("")), [](GateRequest&) {}},
      {"field 0x2191 is missing", service, word(1, kName + 4, 0x20CC)},
      {"both flag words are zero", service, word(1, kVersion + 16, 0)},
      {"buffer count", run, [](GateRequest& r) { r.buffers.clear(); }},
      {"height is 2, not 1", AddRunRequest({}), word(0, 36, 1 << 10)},
      {"empty icon", IconRequest({}), [](GateRequest&) {}},
      {"list of 12 bytes", hidden, word(0, kList - 12, 12)},
      {"reply area's size", FetchRequest(0x80000008, 4095), [](GateRequest&) {}},
      {"empty location", menu, word(0, kEntry + 55, 0)},
      {"empty icon file", menu, word(0, kEntry + 168, 0)},
      {"menu icon: unexpected field 0x0", menu, word(0, kEntry + 168, 4)},
      {"hidden windows: unexpected field 0x6", hidden, word(0, kList - 12, 4)},
      {"unexpected field 0x0", InBuffers(RegisterMessage(zeros)), word(1, kName, 4)},
      {"unexpected field 0x0", InBuffers(UnregisterMessage(zeros)), word(1, 16 + 12 + 12 + 8 + 12 + 4, 4)},
      {"field 0x2010 has 3 bytes", hidden, word(0, 36 + 12, 3)},
      {"5 bytes are too few", menu, Resize(0, 20 + 5)},
      {"8 bytes left behind field 2", hidden, Resize(0, kList - 4)},
      {"sub-header's bytes", Inline({}), Resize(0, 31)},
      {"product version: the size", service, word(1, kVersion - 12, 39)},
      {"probe: the request length", ProbeRequest(), [](GateRequest& r) { r.inline_data[8] = 1; }},
      {"probe: the reply capacity", ProbeRequest(), [](GateRequest& r) { r.inline_data[12] = 1; }},
  };
  for (Case c : cases) {
    c.spoil(c.request);
    EXPECT_THAT(Decode(c.request).violations, testing::Contains(testing::HasSubstr(c.expected)));
  }
}

// A change of any byte, size or flag must be reported, unless it is a value. Nothing outside may be read.
TEST(Decoder, KnowsWhichBytesAreValues) {
  // Where any byte is valid, as "part:first-last": numbers, texts with the next character, and pixels.
  const struct {
    GateRequest whole;
    std::string values;
  } rows[] = {
      {ProbeRequest(), ""},
      {InBuffers(RegisterMessage("svc")), "1:60-66 1:79-90 1:95-106 1:131-133 "},
      {Inline(RegisterMessage("svc")), "0:92-98 0:111-122 0:127-138 0:163-165 "},
      {InlineHead(RegisterMessage(std::string(600, 'n'))), "0:60-66 0:79-90 0:95-106 0:131-730 "},
      {Inline(UnregisterMessage("svc")), "0:108-110 "},
      {Sent([](const GuestCommands& guest) { guest.GuestCmdToolState(true); }), ""},
      {AddRunRequest(Icon(16, 16)), "0:20-23 0:40-53 0:562-593 0:1084-1087 0:1092-1105 0:1622-1637 0:1646-2669 "},
      {Sent([](const GuestCommands& guest) { guest.GuestCmdRmvRun(9, 5); }), "0:20-23 0:36-39 "},
      {Sent([](const GuestCommands& guest) { guest.GuestCmdRmvRunByPath(9, "/x"); }), "0:20-23 0:36-41 "},
      {HiddenWindowsRequest(), "0:60-63 0:76-79 0:92-95 0:100-103 "},
      {Sent([](const GuestCommands& guest) { guest.GuestCmdWindowTitle(2, 1, "t"); }), "0:20-23 0:36-39 0:44-47 "},
      {IconRequest(Icon(1, 2)), "0:20-23 0:40-43 0:56-63 "},
      {IconRequest({std::vector<std::byte>(9), 1, 9, false}), "0:20-23 0:40-43 0:56-64 "},
      {Sent([](const GuestCommands& guest) { guest.GuestCmdFinishEnum(); }), ""},
      {MenuRequest(), "0:68-69 0:82-82 0:95-98 0:111-111 0:224-239 "},
      {FetchRequest(0x80000008, 4096), ""},
  };
  for (const auto& [whole, values] : rows) {
    EXPECT_THAT(Decode(whole).violations, testing::IsEmpty());
    std::vector<Spoil> spoils = {
        [](GateRequest& r) { r.status = 1; },
        [](GateRequest& r) { r.reserved = 1; },
        [](GateRequest& r) { ++r.code; },
        [](GateRequest& r) { r.buffers.push_back({}); },
    };
    std::string found;
    for (std::size_t part = 0; part <= whole.buffers.size(); ++part) {
      const bool is_inline = part == whole.buffers.size();
      if (!is_inline) {
        spoils.emplace_back([part](GateRequest& r) { r.buffers[part].flags ^= 1; });
        spoils.emplace_back([part](GateRequest& r) { r.buffers[part].flags ^= 2; });
        spoils.emplace_back([part](GateRequest& r) { r.buffers[part].address_high = 1; });
      }
      GateRequest changed = whole;
      Bytes& bytes = is_inline ? changed.inline_data : changed.buffers[part].data;
      spoils.push_back(Resize(part, bytes.size() + 1));
      std::size_t values_before = 0;
      for (std::size_t i = 0; i <= bytes.size(); ++i) {
        const auto is_valid_without = [&] {
          bytes[i] ^= 0xFF;
          const bool is_valid = Decode(changed).violations.empty();
          bytes[i] ^= 0xFF;
          return is_valid;
        };
        if (i < bytes.size()) spoils.push_back(Resize(part, i));
        if (i < bytes.size() && is_valid_without()) {
          ++values_before;
        } else if (values_before != 0) {
          found += Format("%zu:%zu-%zu ", part, i - values_before, i - 1);
          values_before = 0;
        }
      }
    }
    EXPECT_EQ(found, values);
    for (std::size_t i = 0; i < spoils.size(); ++i) {
      GateRequest spoilt = whole;
      spoils[i](spoilt);
      EXPECT_FALSE(Decode(spoilt).violations.empty()) << values << "with change " << i;
    }
  }
  EXPECT_THAT(Decode(FetchRequest(0x80000000, 5)).violations, testing::IsEmpty()) << "a small buffer is allowed";
}

// The text fills the whole field and begins with a surrogate pair.
TEST(Decoder, ReadsSurrogatePairs) {
  setenv("LC_ALL", "C.UTF-8", 1);
  const std::string full = "\xF0\x9F\x98\x80" + std::string(259, 'x');
  const auto request = Sent([&](const GuestCommands& guest) { guest.GuestCmdWindowTitle(2, 1, full); });
  EXPECT_EQ(std::get<WindowTitle>(Decode(request).notification).title, full);
}

TEST(CommandQueue, NotesWrongFetches) {
  CommandQueue queue;
  EXPECT_NE(queue.Serve({true, 100}).violation, "") << "no large command was announced";
  queue.Push(RawCommand(Bytes(5000, 3)));
  queue.Serve({false, 4096});
  const FetchReply cut = queue.Serve({true, 10});
  EXPECT_EQ(cut.bytes.size(), 10U);
  EXPECT_NE(cut.violation, "");
  queue.Push(RawCommand(Bytes(5000, 3)));
  queue.Serve({false, 4096});
  EXPECT_NE(queue.Serve({false, 4096}).remark, "") << "the announced command was not fetched";
}

// The session tests send all commands. They do not check some words before a list, which the agent ignores.
TEST(HostCommands, AListFollowsItsFirstItem) {
  const Bytes fields =
      FieldBuffer({{0x2006, Words({5, 6})}, {0x200F, Words({9, 0})}, {0x2010, Words({1})}, {0x2011, Words({2})}});
  const auto body = static_cast<std::uint32_t>(16 + fields.size());
  EXPECT_EQ(HideCommand({5, 6}, {9}, 1, 2).block, Join({Words({108, 2, 0, 0, body, 5, 0, 0, 36}), fields}));
}

}  // namespace
}  // namespace qel::host
