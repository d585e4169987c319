// What is noted of an agent's messages, and the bytes of the host's own.
#include "messages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

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

// Service messages, and their three layouts.
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
  // The part behind the buffers is the inline data.
  const auto resize = [](std::size_t part, std::size_t size) -> Spoil {
    return [=](GateRequest& r) {
      if (part == r.buffers.size()) {
        r.inline_data.resize(size);
      } else {
        r.buffers[part].data.resize(size);
        r.buffers[part].size = static_cast<std::uint32_t>(size);
      }
    };
  };
  constexpr std::uint32_t kWindows[] = {5, 6};
  constexpr std::byte kIcon[4] = {};
  const AppMenuItem item{.path = "/a", .name = "A", .location = "L", .modified = 77, .icon = kIcon};
  const GateRequest run = Sent([](const GuestCommands& guest) {
    guest.GuestCmdAddRun(0x3400007, 12, "Editor", "/usr/bin/editor", "A file", Icon(2, 2), Icon(16, 16));
  });
  const GateRequest menu = Sent([&](const GuestCommands& guest) { guest.GuestCmdAppMenu({&item, 1}); });
  const GateRequest hidden = Sent([&](const GuestCommands& guest) { guest.GuestCmdHiddenWindows(1, 2, kWindows); });
  const GateRequest service = InBuffers(RegisterMessage("svc"));
  const GateRequest long_service = InlineHead(RegisterMessage(std::string(600, 'n')));
  const GateRequest short_service = Inline(RegisterMessage("svc"));
  const GateRequest valid[] = {ProbeRequest(), run, menu, hidden, service, short_service, long_service};
  // Places in the applications menu: the first entry's buffer begins at 20 + 12 + 12.
  constexpr std::size_t kEntry = 44;
  const Case cases[] = {
      {"status on submission", run, [](GateRequest& r) { r.status = 1; }},
      {"unknown code 0x8303", run, [](GateRequest& r) { r.code = 0x8303; }},
      {"block's writable flag", run, [](GateRequest& r) { r.buffers[0].flags = 1; }},
      {"buffer count", run, [](GateRequest& r) { r.buffers.push_back({}); }},
      {"reply area on submission", run, word(1, 100, 1)},
      {"header's flags", run, word(0, 12, 0x10)},
      {"offset 24", run, word(0, 24, 5)},
      {"behind the end of the text", run, word(0, 40 + 100, 0x41)},
      {"unpaired surrogate 0xd800", run, word(0, 40, 0xD800)},
      {"icon 4294967295x2", run, word(0, 1614, UINT32_MAX)},
      {"icon 16x16: 1023 of 1024", run, resize(0, 1622 + 16 + 8 + 1023)},
      {"payload size", menu, word(0, 20, 1)},
      {"magic", menu, word(0, 24, 0xACDCBABA)},
      {"has the index 1", menu, word(0, 40, 1)},
      {"reaches beyond", menu, word(0, 32, UINT32_MAX)},
      {"unexpected field 0x2002", menu, word(0, 36, 0x2002)},
      {"0x2003 stands where 0x2007", menu, word(0, kEntry + 16, 0x2003)},
      {"zero byte within", menu, [](GateRequest& r) { r.buffers[0].data[kEntry + 24] = 0; }},
      {"request length", service, word(0, 8, 1)},
      {"message prefix", service, word(1, 0, 15)},
      {"field 0x2001: a word", service, word(1, 16 + 12 + 12 + 4, 4)},
      {"sent inline", Inline(RegisterMessage(std::string(600, 'n'))), [](GateRequest&) {}},
      {"an inline sub-header with only", InlineHead(RegisterMessage("svc")), [](GateRequest&) {}},
      {"not a copy", ProbeRequest(), word(0, 4, 1)},
  };
  for (Case c : cases) {
    c.spoil(c.request);
    EXPECT_THAT(Decode(c.request).violations, testing::Contains(testing::HasSubstr(c.expected)));
  }
  // Nothing that is cut off passes for valid, and nothing is read outside of it.
  for (const GateRequest& whole : valid) {
    EXPECT_THAT(Decode(whole).violations, testing::IsEmpty());
    for (std::size_t part = 0; part <= whole.buffers.size(); ++part) {
      const std::size_t whole_size = part == whole.buffers.size() ? whole.inline_data.size() : whole.buffers[part].size;
      for (std::size_t size = 0; size < whole_size; ++size) {
        GateRequest cut = whole;
        resize(part, size)(cut);
        EXPECT_FALSE(Decode(cut).violations.empty()) << "part " << part << " cut to " << size;
      }
    }
  }
}

// The session tests send every command. The agent reads all of its bytes except some words before a list.
TEST(HostCommands, AListStandsBehindItsFirstItem) {
  const Bytes fields =
      FieldBuffer({{0x2006, Words({5, 6})}, {0x200F, Words({9, 0})}, {0x2010, Words({1})}, {0x2011, Words({2})}});
  const auto body = static_cast<std::uint32_t>(16 + fields.size());
  EXPECT_EQ(HideCommand({5, 6}, {9}, 1, 2).block, Join({Words({108, 2, 0, 0, body, 5, 0, 0, 36}), fields}));
}

}  // namespace
}  // namespace qel::host
