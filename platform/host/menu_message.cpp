// The applications menu: a list of entries. Each entry is an inner message buffer.
#include "host/decoder_parts.h"

namespace qel::host {
namespace {

constexpr std::size_t kHeader = 20;
constexpr std::size_t kIconHeader = 64;

Icon DecodeMenuIcon(ByteView data, Findings& findings) {
  FieldWalk walk(ReadFields(data, 0, "menu icon", findings), "menu icon", findings);
  if (const auto head = walk.TakeSized(0x2015, kIconHeader)) {
    findings.ExpectZero("menu icon: header", Slice(*head, 0, 8), 0);
    findings.Expect("menu icon: the header's word at offset 8", LoadU32(*head, 8), 1);
    findings.ExpectZero("menu icon: header", Slice(*head, 12), 12);
  }
  Icon icon;
  if (const auto bytes = walk.Take(0x2016)) {
    if (bytes->empty()) findings.Add("menu icon: an empty icon file");
    icon.bytes = std::make_shared<const Bytes>(bytes->begin(), bytes->end());
    icon.width = static_cast<std::uint32_t>(bytes->size());
    icon.height = 1;
  }
  walk.Finish();
  return icon;
}

MenuEntry DecodeMenuEntry(ByteView data, Findings& findings) {
  FieldWalk walk(ReadFields(data, 0, "menu entry", findings), "menu entry", findings);
  MenuEntry entry;
  entry.path = walk.TakeText(0x2007);
  entry.name = walk.TakeText(0x2003);
  if (const auto time = walk.TakeSized(0x200D, 4)) entry.time = LoadU32(*time, 0);
  if (const auto location = walk.TakeOptional(0x2002)) {
    entry.location = walk.CheckText(0x2002, *location);
    if (location->empty()) findings.Add("menu entry: an empty location");
  }
  if (const auto icon = walk.TakeOptional(0x2014)) entry.icon = DecodeMenuIcon(*icon, findings);
  walk.Finish();
  return entry;
}

}  // namespace

AppMenu DecodeAppMenu(ByteView block, Findings& findings) {
  AppMenu menu;
  for (const Field& field : ReadFields(block, kHeader, "applications menu", findings)) {
    if (field.tag == 0x2001) {
      menu.entries.push_back(DecodeMenuEntry(field.data, findings));
    } else {
      findings.Add(Format("applications menu: unexpected field 0x%x", field.tag));
    }
  }
  return menu;
}

}  // namespace qel::host
