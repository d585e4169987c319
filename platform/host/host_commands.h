// The commands a host gives to an agent, as blocks of bytes.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/bytes.h"

namespace qel::host {

// A command as the agent fetches it. One that is larger than the first answer's room, or that has an announced size, is
// announced first and handed out with the agent's second fetch.
struct HostCommand {
  Bytes block;
  std::optional<std::uint32_t> announced_size;  // said instead of the block's own size, true or not

  bool IsReset() const;
  std::optional<std::uint32_t> ActivatedWindow() const;
};

// A command block of `code` with this payload behind its 20-byte header.
HostCommand MakeCommand(std::uint32_t code, ByteView payload, std::uint32_t flags = 0);

HostCommand ResetCommand();

// How the arguments of a start command are laid out.
enum class StartLayout {
  kFixed,              // two fixed text fields; at most one document
  kFields,             // a message buffer right behind a marker word
  kFieldsBehindFixed,  // a message buffer behind two fixed text fields, which the agent does not read then
};
// Texts are UTF-8. std::nullopt where the fixed layout cannot carry them (a text too long, a second document).
std::optional<HostCommand> StartCommand(StartLayout layout, const std::string& application,
                                        const std::vector<std::string>& documents);

enum class Force { kNo, kYes };
HostCommand QuitCommand(std::uint32_t pid, Force force);

// Hides the windows of `pids` but those in `except` (client window ids); the reply carries both context values.
HostCommand HideCommand(const std::vector<std::uint32_t>& pids, const std::vector<std::uint32_t>& except,
                        std::uint32_t context_a, std::uint32_t context_b);
HostCommand HideOneCommand(std::uint32_t pid);

inline constexpr std::uint32_t kActivateApps = 109;
inline constexpr std::uint32_t kActivateAppsAlternative = 138;
// `code` is one of the two above.
HostCommand ActivateAppsCommand(const std::vector<std::uint32_t>& pids, std::uint32_t code = kActivateApps);
HostCommand ActivateOneAppCommand(std::uint32_t pid, std::uint32_t code = kActivateApps);

HostCommand ActivateWindowCommand(std::uint32_t window);

// Any bytes, right or wrong.
HostCommand RawCommand(Bytes block);

// What one line of a command says: its name and size.
std::string Describe(const HostCommand& command);

}  // namespace qel::host
