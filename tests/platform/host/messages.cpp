#include "messages.h"

namespace qel::host::test {
namespace {

Bytes SubHeader(std::size_t length, std::uint32_t reply) {
  return Words({32, 0, static_cast<std::uint32_t>(length), reply, 0, 0, 0, 0});
}

GateBuffer Buffer(Bytes data, std::uint32_t flags) {
  const auto size = static_cast<std::uint32_t>(data.size());
  return {0, 0, size, flags, std::move(data)};
}

GateRequest ServiceRequest(Bytes inline_data, std::vector<GateBuffer> buffers) {
  GateRequest request;
  request.code = 0x8050;
  request.inline_data = std::move(inline_data);
  request.buffers = std::move(buffers);
  return request;
}

}  // namespace

Bytes Words(std::initializer_list<std::uint32_t> words) {
  Bytes bytes;
  for (const std::uint32_t word : words) AppendU32(bytes, word);
  return bytes;
}

Bytes Join(std::initializer_list<Bytes> parts) {
  Bytes bytes;
  for (const Bytes& part : parts) AppendBytes(bytes, part);
  return bytes;
}

Bytes Text16(const std::string& text) {
  Bytes bytes(522);
  for (std::size_t i = 0; i < text.size() && i < 261; ++i) bytes[2 * i] = static_cast<std::uint8_t>(text[i]);
  return bytes;
}

Bytes TextBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

Bytes FieldBuffer(const std::vector<std::pair<std::uint32_t, Bytes>>& fields) {
  Bytes body;
  std::uint32_t index = 0;
  for (const auto& [tag, data] : fields) {
    AppendBytes(body, Words({static_cast<std::uint32_t>(data.size()), tag, index++}));
    AppendBytes(body, data);
  }
  return Join({Words({static_cast<std::uint32_t>(body.size()), 0x1000, 0}), body});
}

GateRequest GuestCommand(Bytes block, std::uint32_t reply) {
  GateRequest request;
  request.code = 0x8302;
  request.buffers = {Buffer(std::move(block), 0), Buffer(Bytes(reply), 1)};
  return request;
}

Bytes Block(std::uint32_t code, const Bytes& body, std::uint32_t body_length, std::uint32_t flags) {
  return Join({Words({code, 2, 0, flags, body_length}), body});
}

GateRequest ProbeRequest() {
  const Bytes head = SubHeader(16, 16);
  return ServiceRequest(Join({head, Bytes(16)}), {Buffer(head, 1), Buffer(Bytes(16), 1)});
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
  return ServiceRequest({}, {Buffer(SubHeader(message.size(), 0), 1), Buffer(message, 0)});
}

GateRequest Inline(const Bytes& message) {
  return ServiceRequest(Join({SubHeader(message.size(), 0), message}), {});
}

GateRequest InlineHead(const Bytes& message) {
  return ServiceRequest(SubHeader(message.size(), 0), {Buffer(message, 0)});
}

GateRequest ToolStateRequest(bool active) {
  return GuestCommand(Block(active ? 100 : 101, {}, 0), 20);
}

GateRequest AddRunRequest(std::uint32_t pid, std::uint32_t window, const std::string& title, std::uint32_t width,
                          std::uint32_t height, bool small) {
  Bytes icon;
  for (std::uint32_t i = 0; i < width * height; ++i) AppendU32(icon, 0xFF000000 + i);
  Bytes body = Join({Words({pid, 0, 0, 0, small ? 2U : 0U}), Text16("Editor"), Text16("/usr/bin/editor"),
                     Words({window, 0}), Text16(title), Words({width, height}), icon});
  if (small) body = Join({body, Words({16, 16}), Bytes(1024, 0x7F)});
  return GuestCommand(Block(104, body, 0), 1622);
}

GateRequest RmvRunRequest(std::uint32_t pid, std::uint32_t window) {
  return GuestCommand(Block(105, Words({pid, 0, 0, 0, window, 0}), 24), 44);
}

GateRequest HiddenWindowsRequest(std::uint32_t a, std::uint32_t b, const Bytes& items) {
  const Bytes body =
      Join({Words({0, 0, 0, 36}), FieldBuffer({{0x2010, Words({a})}, {0x2011, Words({b})}, {0x200F, items}})});
  return GuestCommand(Block(108, body, static_cast<std::uint32_t>(body.size())), 20);
}

GateRequest WindowTitleRequest(std::uint32_t pid, std::uint32_t window, const Bytes& text) {
  return GuestCommand(Block(112, Join({Words({pid, 0, 0, 0, window, 0}), text}), 546), 566);
}

GateRequest FinishEnumRequest() {
  return GuestCommand(Block(113, {}, 0), 20);
}

GateRequest RmvRunByPathRequest(std::uint32_t pid, const std::string& path) {
  return GuestCommand(Block(114, Join({Words({pid, 0, 0, 0}), Text16(path)}), 538), 558);
}

Bytes MenuEntryFields(const std::string& path, const std::string& name, const std::string& location,
                      const Bytes& icon) {
  std::vector<std::pair<std::uint32_t, Bytes>> fields = {
      {0x2007, TextBytes(path)}, {0x2003, TextBytes(name)}, {0x200D, Words({77})}};
  if (!location.empty()) fields.emplace_back(0x2002, TextBytes(location));
  if (!icon.empty()) {
    fields.emplace_back(0x2014, FieldBuffer({{0x2015, Join({Words({0, 0, 1}), Bytes(52)})}, {0x2016, icon}}));
  }
  return FieldBuffer(fields);
}

GateRequest AppMenuRequest(const std::vector<Bytes>& entries) {
  std::vector<std::pair<std::uint32_t, Bytes>> fields;
  for (const Bytes& entry : entries) fields.emplace_back(0x2001, entry);
  const Bytes body = FieldBuffer(fields);
  return GuestCommand(Block(125, body, static_cast<std::uint32_t>(body.size()), 0x810), 20);
}

GateRequest UpdateAppIconRequest(std::uint32_t pid, std::uint32_t window, std::uint32_t width, std::uint32_t height,
                                 const Bytes& icon) {
  const Bytes body = Join({Words({pid, 0, 0, 0, 0, window, 0, width, height}), icon});
  return GuestCommand(Block(137, body, static_cast<std::uint32_t>(icon.size() + 36)), 56);
}

GateRequest FetchRequest(bool large, std::uint32_t room) {
  return GuestCommand(Block(0, {}, 0, large ? 0x80000000 : 0x80000008), room);
}

}  // namespace qel::host::test
