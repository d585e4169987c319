#include "host/decoder_parts.h"

namespace qel::host {

void Findings::Expect(const char* what, std::uint64_t value, std::uint64_t expected) {
  if (value == expected) return;
  Add(Format("%s is 0x%llx, not 0x%llx", what, static_cast<unsigned long long>(value),
             static_cast<unsigned long long>(expected)));
}

void Findings::ExpectZero(const char* what, ByteView bytes, std::size_t offset) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == 0) continue;
    Add(Format("%s: byte 0x%02x at offset %zu, where zero is due", what, bytes[i], offset + i));
    return;
  }
}

std::vector<Field> ReadFields(ByteView block, std::size_t prefix, const char* where, Findings& findings) {
  constexpr std::uint32_t kMagic = 0x1000;
  constexpr std::size_t kHead = 12;
  std::vector<Field> fields;
  const ByteView buffer = Slice(block, prefix);
  if (buffer.size() < kHead) {
    findings.Add(Format("%s: %zu bytes are too few for a message buffer", where, buffer.size()));
    return fields;
  }
  const std::uint32_t payload = LoadU32(buffer, 0);
  if (payload != buffer.size() - kHead) {
    findings.Add(Format("%s: the payload size is %u, with %zu bytes present", where, payload, buffer.size() - kHead));
  }
  if (LoadU32(buffer, 4) != kMagic) findings.Add(Format("%s: the magic is 0x%x", where, LoadU32(buffer, 4)));
  if (LoadU32(buffer, 8) != 0) findings.Add(Format("%s: the header's last word is not zero", where));
  const std::size_t end = kHead + std::min<std::size_t>(payload, buffer.size() - kHead);
  for (std::size_t position = kHead; position < end;) {
    if (end - position < kHead) {
      findings.Add(Format("%s: %zu bytes left behind field %zu", where, end - position, fields.size()));
      break;
    }
    const std::uint32_t size = LoadU32(buffer, position);
    const std::uint32_t tag = LoadU32(buffer, position + 4);
    const std::uint32_t index = LoadU32(buffer, position + 8);
    if (index != fields.size()) {
      findings.Add(Format("%s: field %zu (tag 0x%x) has the index %u", where, fields.size(), tag, index));
    }
    if (size > end - position - kHead) {
      findings.Add(
          Format("%s: field %zu (tag 0x%x) of %u bytes reaches beyond the buffer", where, fields.size(), tag, size));
      break;
    }
    fields.push_back({tag, Slice(buffer, position + kHead, size)});
    position += kHead + size;
  }
  return fields;
}

std::optional<ByteView> FieldWalk::TakeOptional(std::uint32_t tag) {
  if (AtEnd() || fields_[next_].tag != tag) return std::nullopt;
  return fields_[next_++].data;
}

std::optional<ByteView> FieldWalk::Take(std::uint32_t tag) {
  auto data = TakeOptional(tag);
  if (!data) {
    findings_.Add(AtEnd() ? Format("%s: the field 0x%x is missing", where_, tag)
                          : Format("%s: the tag 0x%x stands where 0x%x is due", where_, fields_[next_].tag, tag));
  }
  return data;
}

std::optional<ByteView> FieldWalk::TakeSized(std::uint32_t tag, std::size_t size) {
  auto data = Take(tag);
  if (data && data->size() != size) {
    findings_.Add(Format("%s: the field 0x%x has %zu bytes, not %zu", where_, tag, data->size(), size));
  }
  return data;
}

std::string FieldWalk::CheckText(std::uint32_t tag, ByteView data) {
  if (std::find(data.begin(), data.end(), 0) != data.end()) {
    findings_.Add(Format("%s: a zero byte within the text of field 0x%x", where_, tag));
  }
  return TextOf(data);
}

std::string FieldWalk::TakeText(std::uint32_t tag) {
  const auto data = Take(tag);
  return data ? CheckText(tag, *data) : std::string();
}

void FieldWalk::Finish() {
  for (; !AtEnd(); ++next_) findings_.Add(Format("%s: unexpected field 0x%x", where_, fields_[next_].tag));
}

Decoded Decode(const GateRequest& request) {
  Decoded decoded;
  Findings findings(decoded.violations);
  findings.Expect("request: the status on submission", request.status, 0);
  findings.Expect("request: the reserved word", request.reserved, 0);
  for (std::size_t i = 0; i < request.buffers.size(); ++i) {
    const GateBuffer& buffer = request.buffers[i];
    findings.Expect(Format("buffer %zu: the address's high word", i).c_str(), buffer.address_high, 0);
    findings.Expect(Format("buffer %zu: the unused flags", i).c_str(), buffer.flags & ~kBufferWritable, 0);
  }
  switch (request.code) {
    case kServiceRequest:
      decoded.notification = DecodeServiceMessage(request, findings);
      break;
    case kGuestCommandRequest:
      decoded.notification = DecodeGuestCommand(request, findings);
      break;
    default:
      findings.Add(Format("request: unknown code 0x%x", request.code));
      decoded.notification = Unknown{request.code, std::nullopt};
  }
  return decoded;
}

}  // namespace qel::host
