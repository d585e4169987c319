// Guest commands: a block with a 20-byte header, and a reply area.
#include <algorithm>

#include "host/decoder_parts.h"
#include "host/text.h"

namespace qel::host {
namespace {

constexpr std::size_t kHeader = 20;
constexpr std::uint32_t kFirstFetchFlags = 0x80000008;
constexpr std::uint32_t kLargeFetchFlags = 0x80000000;
constexpr std::uint32_t kFirstFetchRoom = 4096;

// A guest command that is being decoded: its block, the size of the reply area, and the findings.
class Block {
 public:
  Block(ByteView bytes, std::uint32_t reply, Findings& findings) : bytes_(bytes), reply_(reply), findings_(findings) {}

  ByteView bytes() const { return bytes_; }
  Findings& findings() const { return findings_; }
  std::uint32_t Word(std::size_t offset) const { return LoadU32(bytes_, offset); }

  void Zero(std::size_t offset, std::size_t size) const {
    findings_.ExpectZero("guest command", Slice(bytes_, offset, size), offset);
  }
  void Size(std::size_t size) const { findings_.Expect("guest command: the block's size", bytes_.size(), size); }
  void Flags(std::uint32_t flags) const { findings_.Expect("guest command: the header's flags", Word(12), flags); }
  void BodyLength(std::size_t length) const { findings_.Expect("guest command: the body length", Word(16), length); }
  // Checks the body length of a message whose body is the rest of the block.
  void BodyIsRest() const { BodyLength(bytes_.size() < kHeader ? 0 : bytes_.size() - kHeader); }
  void Reply(std::size_t size) const { findings_.Expect("guest command: the reply area's size", reply_, size); }

  std::string Text(const char* what, std::size_t offset) const {
    std::string problem;
    std::string text = DecodeTextField(Slice(bytes_, offset, kTextFieldSize), problem);
    if (!problem.empty()) findings_.Add(Format("%s: %s", what, problem.c_str()));
    return text;
  }

  // The icon with `size` bytes at `offset`. If the block ends before, fewer bytes and a finding.
  Icon TakeIcon(std::uint32_t width, std::uint32_t height, bool argb, std::size_t offset, std::uint64_t size) const {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, bytes_.size()));
    const ByteView data = Slice(bytes_, offset, wanted);
    if (data.size() != size) {
      findings_.Add(Format("icon %ux%u: %zu of %llu bytes are there", width, height, data.size(),
                           static_cast<unsigned long long>(size)));
    }
    if (!argb && size != 0 && height != 1) findings_.Add(Format("icon file: the height is %u, not 1", height));
    return {width, height, argb, std::make_shared<const Bytes>(data.begin(), data.end())};
  }

 private:
  ByteView bytes_;
  std::uint32_t reply_;
  Findings& findings_;
};

std::uint64_t PixelBytes(std::uint32_t width, std::uint32_t height, bool argb) {
  // The result could have 66 bits. An area that does not fit into a block returns the maximum instead.
  const std::uint64_t area = static_cast<std::uint64_t>(width) * height;
  if (area > UINT32_MAX) return UINT64_MAX;
  return argb ? area * 4 : area;
}

ToolState DecodeToolState(const Block& block) {
  block.Flags(0);
  block.Size(kHeader);
  block.BodyLength(0);
  block.Reply(20);
  return {block.Word(0) == 100};
}

AddRun DecodeAddRun(const Block& block) {
  constexpr std::uint32_t kIconIsFile = 1U << 10;
  constexpr std::uint32_t kSmallIcon = 1U << 1;
  constexpr std::size_t kFixed = 1622;
  constexpr std::uint32_t kSmallSide = 16;
  block.Flags(0);
  block.BodyLength(0);
  block.Reply(kFixed);
  if (block.bytes().size() < kFixed) block.Size(kFixed);
  AddRun run;
  run.pid = block.Word(20);
  block.Zero(24, 12);
  run.flags = block.Word(36);
  block.findings().Expect("add-run: the unused flags", run.flags & ~(kIconIsFile | kSmallIcon), 0);
  run.name = block.Text("name", 40);
  run.path = block.Text("path", 562);
  run.window = block.Word(1084);
  block.Zero(1088, 4);
  run.title = block.Text("title", 1092);
  const bool argb = (run.flags & kIconIsFile) == 0;
  const std::uint64_t size = PixelBytes(block.Word(1614), block.Word(1618), argb);
  run.icon = block.TakeIcon(block.Word(1614), block.Word(1618), argb, kFixed, size);
  std::size_t end = kFixed + run.icon.ByteCount();
  if ((run.flags & kSmallIcon) != 0) {
    block.findings().Expect("small icon: the width", block.Word(end), kSmallSide);
    block.findings().Expect("small icon: the height", block.Word(end + 4), kSmallSide);
    run.small_icon = block.TakeIcon(kSmallSide, kSmallSide, true, end + 8, PixelBytes(kSmallSide, kSmallSide, true));
    end += 8 + run.small_icon->ByteCount();
  }
  if (block.bytes().size() > end) block.Size(end);
  return run;
}

RmvRun DecodeRmvRun(const Block& block) {
  block.Flags(0);
  block.Size(44);
  block.BodyLength(24);
  block.Reply(44);
  block.Zero(24, 12);
  block.Zero(40, 4);
  return {block.Word(20), block.Word(36)};
}

HiddenWindows DecodeHiddenWindows(const Block& block) {
  constexpr std::size_t kPrefix = 36;
  block.Flags(0);
  block.BodyIsRest();
  block.Reply(20);
  block.Zero(20, 12);
  block.findings().Expect("hidden windows: the word at offset 32", block.Word(32), kPrefix);
  FieldWalk walk(ReadFields(block.bytes(), kPrefix, "hidden windows", block.findings()), "hidden windows",
                 block.findings());
  HiddenWindows hidden;
  if (const auto context = walk.TakeSized(0x2010, 4)) hidden.context_a = LoadU32(*context, 0);
  if (const auto context = walk.TakeSized(0x2011, 4)) hidden.context_b = LoadU32(*context, 0);
  if (const auto list = walk.Take(0x200F)) {
    if (list->empty() || list->size() % 8 != 0) {
      block.findings().Add(Format("hidden windows: a list of %zu bytes", list->size()));
    }
    for (std::size_t at = 0; at + 8 <= list->size(); at += 8) {
      hidden.windows.push_back(LoadU32(*list, at));
      block.findings().ExpectZero("hidden windows: high word", Slice(*list, at + 4, 4), at + 4);
    }
  }
  walk.Finish();
  return hidden;
}

WindowTitle DecodeWindowTitle(const Block& block) {
  block.Flags(0);
  block.Size(566);
  block.BodyLength(546);
  block.Reply(566);
  block.Zero(24, 12);
  block.Zero(40, 4);
  return {block.Word(20), block.Word(36), block.Text("title", 44)};
}

FinishEnum DecodeFinishEnum(const Block& block) {
  block.Flags(0);
  block.Size(kHeader);
  block.BodyLength(0);
  block.Reply(20);
  return {};
}

RmvRunByPath DecodeRmvRunByPath(const Block& block) {
  block.Flags(0);
  block.Size(558);
  block.BodyLength(538);
  block.Reply(558);
  block.Zero(24, 12);
  return {block.Word(20), block.Text("path", 36)};
}

AppMenu DecodeMenuCommand(const Block& block) {
  block.Flags(0x810);
  block.BodyIsRest();
  block.Reply(20);
  return DecodeAppMenu(block.bytes(), block.findings());
}

UpdateAppIcon DecodeUpdateAppIcon(const Block& block) {
  constexpr std::size_t kFixed = 56;
  block.Flags(0);
  block.BodyIsRest();
  block.Reply(kFixed);
  if (block.bytes().size() < kFixed) block.Size(kFixed);
  block.Zero(24, 16);
  block.Zero(44, 4);
  UpdateAppIcon update;
  update.pid = block.Word(20);
  update.window = block.Word(40);
  const std::uint32_t width = block.Word(48);
  const std::uint32_t height = block.Word(52);
  const std::size_t rest = block.bytes().size() < kFixed ? 0 : block.bytes().size() - kFixed;
  // The message has no flag for the kind of the icon; the size shows whether it is an image file.
  const bool argb = rest != PixelBytes(width, height, false) || height != 1;
  update.icon = block.TakeIcon(width, height, argb, kFixed, argb ? PixelBytes(width, height, true) : rest);
  if (update.icon.ByteCount() == 0) block.findings().Add("update-app-icon: an empty icon");
  if (block.bytes().size() > kFixed + update.icon.ByteCount()) block.Size(kFixed + update.icon.ByteCount());
  return update;
}

Fetch DecodeFetch(const Block& block, std::uint32_t room) {
  const std::uint32_t flags = block.Word(12);
  const bool large = flags == kLargeFetchFlags;
  if (!large) {
    block.Flags(kFirstFetchFlags);
    block.Reply(kFirstFetchRoom);
  }
  block.Size(kHeader);
  block.BodyLength(0);
  return {large, room};
}

}  // namespace

Notification DecodeGuestCommand(const GateRequest& request, Findings& findings) {
  findings.Expect("guest command: the inline byte count", request.inline_data.size(), 0);
  findings.Expect("guest command: the buffer count", request.buffers.size(), 2);
  if (request.buffers.empty()) return Unknown{request.code, std::nullopt};
  findings.Expect("guest command: the block's writable flag", request.buffers[0].Writable(), false);
  std::uint32_t room = 0;
  if (request.buffers.size() > 1) {
    findings.Expect("guest command: the reply area's writable flag", request.buffers[1].Writable(), true);
    findings.ExpectZero("guest command: the reply area on submission", request.buffers[1].data, 0);
    room = request.buffers[1].size;
  }
  const Block block(request.buffers[0].data, room, findings);
  if (block.bytes().size() < kHeader) {
    block.Size(kHeader);
    return Unknown{request.code, std::nullopt};
  }
  findings.Expect("guest command: the version", block.Word(4), 2);
  findings.Expect("guest command: the reserved word", block.Word(8), 0);
  switch (block.Word(0)) {
    case 0:
      return DecodeFetch(block, room);
    case 100:
    case 101:
      return DecodeToolState(block);
    case 104:
      return DecodeAddRun(block);
    case 105:
      return DecodeRmvRun(block);
    case 108:
      return DecodeHiddenWindows(block);
    case 112:
      return DecodeWindowTitle(block);
    case 113:
      return DecodeFinishEnum(block);
    case 114:
      return DecodeRmvRunByPath(block);
    case 125:
      return DecodeMenuCommand(block);
    case 137:
      return DecodeUpdateAppIcon(block);
    default:
      findings.Add(Format("guest command: unknown code %u", block.Word(0)));
      return Unknown{request.code, block.Word(0)};
  }
}

}  // namespace qel::host
