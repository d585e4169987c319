// The host's commands as they come over the gate, and as the agent understands them.
//
// A command block is a 20-byte header {code, unused, -1 when there is no command, flags, payload size} and the payload;
// integers are 32-bit little-endian. Nothing in it is trusted: every offset and length is checked against the bytes
// received, and what lies beyond the block reads as zero.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "apps/registry.h"

namespace qel {

inline constexpr std::size_t kHostCommandHeaderSize = 20;

// The block received in place of a command that is too large for the buffer offered.
inline constexpr std::uint32_t kHostCommandTooLarge = 126;

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
  std::vector<std::int32_t> pids;  // as they came: perhaps many times the same
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

// A view of a received block.
class HostCommandBlock {
 public:
  explicit HostCommandBlock(std::span<const std::byte> received);

  std::uint32_t Code() const { return U32At(0); }
  bool HoldsCommand() const;  // false: the host has none
  std::uint32_t Flags() const { return U32At(12); }
  std::uint32_t PayloadSize() const { return U32At(16); }

  // The size of the whole command when Code() is kHostCommandTooLarge.
  std::uint32_t LargeCommandSize() const { return U32At(kHostCommandHeaderSize); }

  // The command, or nothing when its code is unknown, it is too short for its code, or it claims to be longer than what
  // was received.
  std::optional<HostCommand> Decode() const;

 private:
  std::uint32_t U32At(std::size_t offset) const;

  std::span<const std::byte> received_;
};

}  // namespace qel
