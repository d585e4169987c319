// The format of the host's commands on the gate, and the decoded commands.
//
// A command block is a 20-byte header {code, unused, -1 when there is no command, flags, payload size} and the payload.
// Integers are 32-bit little-endian; sizes and offsets are in bytes. The content is not trusted: every offset and
// length is checked against the received bytes, and bytes after the end of the block read as zero. Any thread may call
// these functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "apps/running_app_registry.h"

namespace qel {

inline constexpr std::size_t kHostCommandHeaderSize = 20;

enum class HostCommandCode : std::uint32_t {
  kReset = 1,
  kStartApp = 106,
  kQuitApp = 107,
  kHideApps = 108,
  kActivateApps = 109,
  kActivateWindow = 111,
  kActivateAppsAlso = 138,
};

struct ResetCommand {};

// A command in the fixed layout has a `document`, which may be empty, and no `documents`. A command in the field layout
// has `documents`, which may be empty, and no `document`.
struct StartAppCommand {
  std::string app;  // a program, or a desktop entry file
  std::optional<std::string> document;
  std::vector<std::string> documents;
};

struct QuitAppCommand {
  std::int32_t pid;
  bool force;
};

struct HideAppsCommand {
  std::vector<std::int32_t> pids;  // the same id may occur several times
  std::vector<WindowId> excluded_clients;
  std::uint32_t context_a = 0;  // both values are sent back in the reply
  std::uint32_t context_b = 0;
};

struct ActivateAppsCommand {
  std::vector<std::int32_t> pids;
};

struct ActivateWindowCommand {
  WindowId window;
};

using HostCommand = std::variant<ResetCommand, StartAppCommand, QuitAppCommand, HideAppsCommand, ActivateAppsCommand,
                                 ActivateWindowCommand>;

// If `received` says that the command did not fit into the buffer, returns the size of the whole command in bytes,
// otherwise nullopt. The size is the host's number and not checked.
std::optional<std::uint32_t> LargeHostCommandSize(std::span<const std::byte> received);

// Decodes a command. Returns nullopt when the host has no command, the code is unknown, the block is too short for its
// code, or its size is larger than the received bytes.
std::optional<HostCommand> DecodeHostCommand(std::span<const std::byte> received);

}  // namespace qel
