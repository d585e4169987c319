// The host's commands as they come over the gate, and as the agent understands them.
//
// A command block is a 20-byte header {code, unused, -1 when there is no command, flags, payload size} and the payload.
// Integers are 32-bit little-endian, sizes and offsets are in bytes. Nothing in it is trusted: every offset and length
// is checked against the bytes received, and what lies beyond the block reads as zero. Callable from any thread.
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

// Texts end before their first zero byte. A command in the fixed layout has a document, maybe an empty one, and no
// list; one in the field layout has a list, maybe an empty one, and no document.
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
  std::vector<std::int32_t> pids;  // one may occur many times
  std::vector<WindowId> excluded_clients;
  std::uint32_t context_a = 0;  // both returned with the reply
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

// The size in bytes of the whole command, when `received` says that it did not fit into the buffer offered; nothing
// otherwise. The host says it: it may be any number.
std::optional<std::uint32_t> LargeHostCommandSize(std::span<const std::byte> received);

// The command. Nothing when the host has none, its code is unknown, it is too short for its code, or it claims to be
// longer than what was received.
std::optional<HostCommand> DecodeHostCommand(std::span<const std::byte> received);

}  // namespace qel
