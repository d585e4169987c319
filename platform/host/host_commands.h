// Builds the commands of a host for an agent as blocks of bytes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/bytes.h"

namespace qel::host {

// A command as the agent fetches it. A command that is too large for the first answer, or that has an announced size,
// is first announced and then sent with the agent's second fetch.
struct HostCommand {
  Bytes block;
  std::optional<std::uint32_t> announced_size;  // announced instead of the real size; may be wrong on purpose

  bool IsReset() const;
  std::optional<std::uint32_t> ActivatedWindow() const;
};

// A command block with this code: a 20-byte header and the payload.
HostCommand MakeCommand(std::uint32_t code, ByteView payload, std::uint32_t flags = 0);

HostCommand ResetCommand();

// The layouts of a start command.
enum class StartLayout {
  kFixed,              // two fixed text fields; at most one document
  kFields,             // a marker word and a message buffer
  kFieldsBehindFixed,  // two fixed text fields, which the agent ignores, and a message buffer
};
// Texts are UTF-8. Returns std::nullopt when they do not fit into the fixed layout (too long, or a second document).
std::optional<HostCommand> StartCommand(StartLayout layout, const std::string& application,
                                        const std::vector<std::string>& documents);

enum class Force { kNo, kYes };
HostCommand QuitCommand(std::uint32_t pid, Force force);

// Hides the windows of `pids` except those in `except` (client window ids). The agent's reply contains both context
// values.
HostCommand HideCommand(const std::vector<std::uint32_t>& pids, const std::vector<std::uint32_t>& except,
                        std::uint32_t context_a, std::uint32_t context_b);
HostCommand HideOneCommand(std::uint32_t pid);

inline constexpr std::uint32_t kActivateApps = 109;
inline constexpr std::uint32_t kActivateAppsAlternative = 138;
// `code` is one of the two above.
HostCommand ActivateAppsCommand(const std::vector<std::uint32_t>& pids, std::uint32_t code = kActivateApps);
HostCommand ActivateOneAppCommand(std::uint32_t pid, std::uint32_t code = kActivateApps);

HostCommand ActivateWindowCommand(std::uint32_t window);

// A command of any bytes, which may be invalid.
HostCommand RawCommand(Bytes block);

// The name and the size of a command as text.
std::string Describe(const HostCommand& command);

}  // namespace qel::host
