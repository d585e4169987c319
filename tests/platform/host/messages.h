// Valid messages as an agent sends them, put together byte by byte, for tests to send or to spoil.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/gate_request.h"

namespace qel::host::test {

Bytes Words(std::initializer_list<std::uint32_t> words);
Bytes Join(std::initializer_list<Bytes> parts);
// ASCII text as UTF-16LE in a fixed field.
Bytes Text16(const std::string& text);
Bytes TextBytes(const std::string& text);
// A message buffer with these fields, without prefix.
Bytes FieldBuffer(const std::vector<std::pair<std::uint32_t, Bytes>>& fields);

GateRequest GuestCommand(Bytes block, std::uint32_t reply);
// Header and body; the body length is filled in as asked.
Bytes Block(std::uint32_t code, const Bytes& body, std::uint32_t body_length, std::uint32_t flags = 0);

GateRequest ProbeRequest();
Bytes RegisterMessage(const std::string& name);
Bytes UnregisterMessage(const std::string& name);
GateRequest InBuffers(const Bytes& message);
GateRequest Inline(const Bytes& message);
GateRequest InlineHead(const Bytes& message);

GateRequest ToolStateRequest(bool active);
// A w x h icon whose pixels count up, and a small one.
GateRequest AddRunRequest(std::uint32_t pid, std::uint32_t window, const std::string& title, std::uint32_t width,
                          std::uint32_t height, bool small);
GateRequest RmvRunRequest(std::uint32_t pid, std::uint32_t window);
GateRequest HiddenWindowsRequest(std::uint32_t a, std::uint32_t b, const Bytes& items);
GateRequest WindowTitleRequest(std::uint32_t pid, std::uint32_t window, const Bytes& text);
GateRequest FinishEnumRequest();
GateRequest RmvRunByPathRequest(std::uint32_t pid, const std::string& path);
Bytes MenuEntryFields(const std::string& path, const std::string& name, const std::string& location, const Bytes& icon);
GateRequest AppMenuRequest(const std::vector<Bytes>& entries);
GateRequest UpdateAppIconRequest(std::uint32_t pid, std::uint32_t window, std::uint32_t width, std::uint32_t height,
                                 const Bytes& icon);
GateRequest FetchRequest(bool large, std::uint32_t room);

}  // namespace qel::host::test
