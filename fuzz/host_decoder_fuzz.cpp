// The decoder of the host stand-in, with any request, and with the requests that the agent composes.
//
// The decoder is strict: when it finds nothing wrong, the agent must compose the same bytes from the decoded values.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <variant>
#include <vector>

#include "base/overloaded.h"
#include "host/decoder.h"
#include "host/model.h"
#include "host/render_json.h"
#include "host/render_text.h"
#include "support/fuzzed_data.h"
#include "tools_gate/guest_commands.h"

namespace {

using qel::fuzz::Expect;
using qel::fuzz::FuzzedData;
namespace host = qel::host;

// A gate that keeps the last request.
class Gate {
 public:
  const qel::GuestCommands agent{[this](const qel::TgRequest& sent) {
    request = {};
    request.code = sent.code;
    for (const qel::TgBuffer& buffer : sent.buffers) {
      const auto* const bytes = reinterpret_cast<const std::uint8_t*>(buffer.data);
      request.buffers.push_back({.address = 0,
                                 .address_high = 0,
                                 .size = buffer.size,
                                 .flags = buffer.writable ? host::kBufferWritable : 0,
                                 .data = {bytes, bytes + buffer.size}});
    }
    return true;
  }};
  host::GateRequest request;
};

qel::IconImage ImageOf(const host::Icon& icon) {
  qel::IconImage image{.bytes = {}, .height = icon.height, .width = icon.width, .argb = icon.argb};
  if (icon.bytes) {
    const std::span<const std::byte> bytes = std::as_bytes(std::span(*icon.bytes));
    image.bytes.assign(bytes.begin(), bytes.end());
  }
  return image;
}

void SendMenu(const qel::GuestCommands& agent, const host::AppMenu& menu) {
  std::vector<qel::AppMenuItem> items;
  for (const host::MenuEntry& entry : menu.entries) {
    qel::AppMenuItem item{.path = entry.path,
                          .name = entry.name,
                          .location = entry.location ? std::string_view(*entry.location) : std::string_view(),
                          .modified = entry.time,
                          .icon = {}};
    if (entry.icon) {
      item.icon = std::as_bytes(std::span(*entry.icon->bytes));
    }
    items.push_back(item);
  }
  agent.GuestCmdAppMenu(items);
}

// Sends the decoded message again. Returns false for messages that are not sent in this way.
bool SendAgain(const qel::GuestCommands& agent, const host::Notification& message) {
  const auto number = [](std::uint32_t pid) { return static_cast<std::int32_t>(pid); };
  return std::visit(
      qel::Overloaded{
          [&](const host::ToolState& m) { return agent.GuestCmdToolState(m.active), true; },
          [&](const host::AddRun& m) {
            agent.GuestCmdAddRun(m.window, number(m.pid), m.name, m.path, m.title, ImageOf(m.icon),
                                 ImageOf(m.small_icon.value_or(host::Icon{})));
            return true;
          },
          [&](const host::RmvRun& m) { return agent.GuestCmdRmvRun(number(m.pid), m.window), true; },
          [&](const host::HiddenWindows& m) {
            return agent.GuestCmdHiddenWindows(m.context_a, m.context_b, m.windows), true;
          },
          [&](const host::WindowTitle& m) { return agent.GuestCmdWindowTitle(m.window, number(m.pid), m.title), true; },
          [&](const host::FinishEnum&) { return agent.GuestCmdFinishEnum(), true; },
          [&](const host::RmvRunByPath& m) { return agent.GuestCmdRmvRunByPath(number(m.pid), m.path), true; },
          [&](const host::AppMenu& m) { return SendMenu(agent, m), true; },
          [&](const host::UpdateAppIcon& m) {
            return agent.GuestCmdUpdateAppIcon(m.window, number(m.pid), ImageOf(m.icon)), true;
          },
          [](const auto&) { return false; }},
      message);
}

host::GateRequest AnyRequest(FuzzedData& input) {
  const auto bytes = [&input](std::size_t size) {
    const auto taken = input.Bytes(size);
    return host::Bytes(taken.begin(), taken.end());
  };
  const std::uint8_t kind = input.Byte();
  host::GateRequest request;
  request.code = (kind & 1) != 0 ? host::kServiceRequest : host::kGuestCommandRequest;
  request.status = (kind & 2) != 0 ? input.Number() : 0;
  request.inline_data = bytes((kind & 4) != 0 ? input.Byte() * 4U : 0);
  for (unsigned left = (kind >> 3) % 4; left > 0; --left) {
    host::GateBuffer& buffer = request.buffers.emplace_back();
    buffer.flags = (kind & 1) != 0 ? input.Byte() : left == 1 ? 1 : 0;
    // The second buffer of a command takes the reply. It contains zeros.
    const std::size_t size = input.Number(2);
    buffer.data = (kind & 1) != 0 || left != 1 ? bytes(size) : host::Bytes(size % 5000);
    buffer.size = static_cast<std::uint32_t>(buffer.data.size());
  }
  return request;
}

void DecodeAny(FuzzedData& input) {
  const host::GateRequest request = AnyRequest(input);
  const host::Decoded decoded = host::Decode(request);
  host::Event event;
  event.notification = decoded.notification;
  event.violations = decoded.violations;
  Expect(!host::RenderEvent(event).empty() && !host::EventToJson(event).empty(), "a message can be shown");
  host::Model model;
  model.Apply(std::move(event));
  Gate gate;
  if (decoded.violations.empty() && SendAgain(gate.agent, decoded.notification)) {
    Expect(gate.request.buffers == request.buffers, "what is not wrong is what the agent composes");
  }
}

// The agent's messages are always valid, no matter which texts its windows have.
void DecodeOwn(FuzzedData& input) {
  const auto window = input.Number();
  const auto pid = static_cast<std::int32_t>(input.Number());
  const std::uint8_t sides = input.Byte();
  const std::uint32_t width = sides % 16;
  const std::uint32_t height = sides / 16;
  const qel::IconImage image{
      .bytes = std::vector<std::byte>(std::size_t{4} * width * height), .height = height, .width = width, .argb = true};
  const qel::IconImage small{.bytes = std::vector<std::byte>(1024), .height = 16, .width = 16, .argb = true};
  const std::string name = input.Text('\0');
  const std::string path = input.Text('\0');
  const std::string title = input.Text('\0');
  Gate gate;
  const auto decode = [&gate] {
    host::Decoded decoded = host::Decode(gate.request);
    Expect(decoded.violations.empty(), "the agent's messages are correct");
    return decoded.notification;
  };
  gate.agent.GuestCmdAddRun(window, pid, name, path, title, image, (pid & 1) != 0 ? small : qel::IconImage{});
  const auto run = std::get<host::AddRun>(decode());
  Expect(run.window == window && run.pid == static_cast<std::uint32_t>(pid), "the ids");
  Expect(name.starts_with(run.name) && path.starts_with(run.path) && title.starts_with(run.title),
         "a text arrives, up to its limit or the first byte that is no character");
  Expect(run.icon.ByteCount() == image.bytes.size() && run.small_icon.has_value() == ((pid & 1) != 0), "the icons");
  if (!image.IsEmpty()) {
    gate.agent.GuestCmdUpdateAppIcon(window, pid, image);
    Expect(std::get<host::UpdateAppIcon>(decode()).icon.ByteCount() == image.bytes.size(), "the new icon");
  }
  SendMenu(gate.agent, {{{path, name, window, title.empty() ? std::nullopt : std::optional(title), std::nullopt}}});
  const auto menu = std::get<host::AppMenu>(decode());
  Expect(menu.entries.size() == 1 && menu.entries[0].path == path && menu.entries[0].name == name, "the menu");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  setenv("LC_ALL", "C.UTF-8", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedData input(data, size);
  if (input.Byte() % 4 == 0) {
    DecodeOwn(input);
  } else {
    DecodeAny(input);
  }
  return 0;
}
