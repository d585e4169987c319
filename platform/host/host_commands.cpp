#include "host/host_commands.h"

#include "host/text.h"

namespace qel::host {
namespace {

constexpr std::uint32_t kReset = 1;
constexpr std::uint32_t kStartApp = 106;
constexpr std::uint32_t kQuitApp = 107;
constexpr std::uint32_t kHideApps = 108;
constexpr std::uint32_t kActivateWindow = 111;
constexpr std::uint32_t kForceFlag = 0x20;
constexpr std::size_t kHeader = 20;
// Offset of a list: after four words, the single id, two unused words, and this offset.
constexpr std::uint32_t kListPlace = 36;

// Composes a message buffer field by field.
class FieldBuffer {
 public:
  FieldBuffer() {
    AppendU32(bytes_, 0);
    AppendU32(bytes_, 0x1000);
    AppendU32(bytes_, 0);
  }
  void Add(std::uint32_t tag, ByteView data) {
    AppendU32(bytes_, static_cast<std::uint32_t>(data.size()));
    AppendU32(bytes_, tag);
    AppendU32(bytes_, count_++);
    AppendBytes(bytes_, data);
    StoreU32(bytes_, 0, static_cast<std::uint32_t>(bytes_.size() - 12));
  }
  void AddWords(std::uint32_t tag, const std::vector<std::uint32_t>& words) {
    Bytes data;
    for (const std::uint32_t word : words) AppendU32(data, word);
    Add(tag, data);
  }
  const Bytes& bytes() const { return bytes_; }

 private:
  Bytes bytes_;
  std::uint32_t count_ = 0;
};

HostCommand ListCommand(std::uint32_t code, const std::vector<std::uint32_t>& pids, const FieldBuffer& fields) {
  Bytes payload;
  AppendU32(payload, pids.empty() ? 0 : pids.front());
  AppendU32(payload, 0);
  AppendU32(payload, 0);
  AppendU32(payload, kListPlace);
  AppendBytes(payload, fields.bytes());
  return MakeCommand(code, payload);
}

HostCommand WordCommand(std::uint32_t code, std::uint32_t word, std::uint32_t flags = 0) {
  Bytes payload;
  AppendU32(payload, word);
  return MakeCommand(code, payload, flags);
}

const char* CommandName(std::uint32_t code) {
  switch (code) {
    case kReset:
      return "reset";
    case kStartApp:
      return "start-app";
    case kQuitApp:
      return "quit-app";
    case kHideApps:
      return "hide-apps";
    case kActivateApps:
    case kActivateAppsAlternative:
      return "activate-apps";
    case kActivateWindow:
      return "activate-window";
    default:
      return "raw";
  }
}

}  // namespace

bool HostCommand::IsReset() const {
  return LoadU32(block, 0) == kReset;
}

std::optional<std::uint32_t> HostCommand::ActivatedWindow() const {
  if (LoadU32(block, 0) != kActivateWindow) return std::nullopt;
  return LoadU32(block, kHeader);
}

HostCommand MakeCommand(std::uint32_t code, ByteView payload, std::uint32_t flags) {
  HostCommand command;
  AppendU32(command.block, code);
  AppendU32(command.block, 2);
  AppendU32(command.block, 0);  // anything but -1: there is a command
  AppendU32(command.block, flags);
  AppendU32(command.block, static_cast<std::uint32_t>(payload.size()));
  AppendBytes(command.block, payload);
  return command;
}

HostCommand ResetCommand() {
  return MakeCommand(kReset, {});
}

std::optional<HostCommand> StartCommand(StartLayout layout, const std::string& application,
                                        const std::vector<std::string>& documents) {
  const std::string document = documents.empty() ? std::string() : documents.front();
  Bytes payload;
  if (layout == StartLayout::kFixed) {
    if (documents.size() > 1 || EncodedTextSize(application) > kTextFieldSize ||
        EncodedTextSize(document) > kTextFieldSize) {
      return std::nullopt;
    }
  }
  if (layout == StartLayout::kFields) {
    AppendU32(payload, UINT32_MAX);
  } else {
    AppendBytes(payload, EncodeTextField(application));
    AppendBytes(payload, EncodeTextField(document));
  }
  if (layout != StartLayout::kFixed) {
    FieldBuffer fields;
    fields.Add(0x200B, ViewOf(application));
    for (const std::string& path : documents) fields.Add(0x2016, ViewOf(path));
    AppendBytes(payload, fields.bytes());
  }
  return MakeCommand(kStartApp, payload);
}

HostCommand QuitCommand(std::uint32_t pid, Force force) {
  return WordCommand(kQuitApp, pid, force == Force::kYes ? kForceFlag : 0);
}

HostCommand HideCommand(const std::vector<std::uint32_t>& pids, const std::vector<std::uint32_t>& except,
                        std::uint32_t context_a, std::uint32_t context_b) {
  FieldBuffer fields;
  fields.AddWords(0x2006, pids);
  std::vector<std::uint32_t> items;
  for (const std::uint32_t window : except) items.insert(items.end(), {window, 0});
  fields.AddWords(0x200F, items);
  fields.AddWords(0x2010, {context_a});
  fields.AddWords(0x2011, {context_b});
  return ListCommand(kHideApps, pids, fields);
}

HostCommand HideOneCommand(std::uint32_t pid) {
  return WordCommand(kHideApps, pid);
}

HostCommand ActivateAppsCommand(const std::vector<std::uint32_t>& pids, std::uint32_t code) {
  FieldBuffer fields;
  fields.AddWords(0x2006, pids);
  return ListCommand(code, pids, fields);
}

HostCommand ActivateOneAppCommand(std::uint32_t pid, std::uint32_t code) {
  return WordCommand(code, pid);
}

HostCommand ActivateWindowCommand(std::uint32_t window) {
  return WordCommand(kActivateWindow, window);
}

HostCommand RawCommand(Bytes block) {
  return {std::move(block), std::nullopt};
}

std::string Describe(const HostCommand& command) {
  const std::uint32_t code = LoadU32(command.block, 0);
  std::string text = Format("%s (code %u, %zu bytes", CommandName(code), code, command.block.size());
  if (command.block.size() < kHeader) text += ", no whole header";
  if (command.announced_size) text += Format(", announced as %u", *command.announced_size);
  return text + ")";
}

}  // namespace qel::host
