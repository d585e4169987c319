// The probe, and the registration and unregistration of the agent's service.
#include "host/decoder_parts.h"

namespace qel::host {
namespace {

constexpr std::size_t kSubHeaderSize = 32;
constexpr std::size_t kProbeData = 16;
constexpr std::uint32_t kLargestInline = 512;  // largest message, in bytes, that is sent inline

struct SubHeader {
  std::uint32_t request_length = 0;
  std::uint32_t reply_capacity = 0;
};

SubHeader ReadSubHeader(const char* where, ByteView bytes, Findings& findings) {
  const auto name = [where](const char* what) { return std::string(where) + ": " + what; };
  findings.Expect(name("the size").c_str(), LoadU32(bytes, 0), kSubHeaderSize);
  findings.ExpectZero(name("reserved").c_str(), Slice(bytes, 4, 4), 4);
  findings.ExpectZero(name("the host's fields and the reserved bytes").c_str(), Slice(bytes, 16, 16), 16);
  return {LoadU32(bytes, 8), LoadU32(bytes, 12)};
}

void ExpectBuffer(const GateRequest& request, std::size_t index, std::size_t size, bool writable, Findings& findings) {
  const GateBuffer& buffer = request.buffers[index];
  findings.Expect(Format("buffer %zu: the size", index).c_str(), buffer.size, size);
  findings.Expect(Format("buffer %zu: the writable flag", index).c_str(), buffer.Writable(), writable);
}

bool LooksLikeProbe(const GateRequest& request) {
  return request.inline_data.size() == kSubHeaderSize + kProbeData && !request.buffers.empty();
}

Probe DecodeProbe(const GateRequest& request, Findings& findings) {
  const SubHeader head = ReadSubHeader("probe: inline sub-header", request.inline_data, findings);
  findings.Expect("probe: the request length", head.request_length, kProbeData);
  findings.Expect("probe: the reply capacity", head.reply_capacity, kProbeData);
  findings.ExpectZero("probe: data", Slice(request.inline_data, kSubHeaderSize), kSubHeaderSize);
  findings.Expect("probe: the buffer count", request.buffers.size(), 2);
  if (request.buffers.size() < 2) return {};
  ExpectBuffer(request, 0, kSubHeaderSize, true, findings);
  ExpectBuffer(request, 1, kProbeData, true, findings);
  if (!std::ranges::equal(request.buffers[0].data, Slice(request.inline_data, 0, kSubHeaderSize))) {
    findings.Add("probe: buffer 0 is not a copy of the inline sub-header");
  }
  findings.ExpectZero("probe: buffer 1", request.buffers[1].data, 0);
  return {};
}

std::string ReadWords(const char* what, std::optional<ByteView> data, std::initializer_list<std::uint32_t> words) {
  std::size_t offset = 0;
  for (const std::uint32_t word : words) {
    if (data && LoadU32(*data, offset) != word)
      return Format("%s: a word is %u, not %u", what, LoadU32(*data, offset), word);
    offset += 4;
  }
  return {};
}

ProductVersion DecodeVersion(ByteView data, Findings& findings) {
  findings.Expect("product version: its fourth word", LoadU32(data, 12), 0x80000000);
  if (LoadU32(data, 16) == 0 && LoadU32(data, 20) == 0)
    findings.Add("product version: sent though both flag words are zero");
  findings.Expect("product version: byte 28", Slice(data, 28, 1).empty() ? 0 : data[28], 9);
  findings.ExpectZero("product version", Slice(data, 29), 29);
  return {LoadU32(data, 0),  LoadU32(data, 4),  LoadU32(data, 8),
          LoadU32(data, 16), LoadU32(data, 20), LoadU32(data, 24)};
}

Notification DecodeMessage(ByteView message, ServiceLayout layout, Findings& findings) {
  constexpr std::uint32_t kUnregisterTag = 0x20CF;
  constexpr std::size_t kPrefix = 16;
  const auto note = [&findings](std::string text) {
    if (!text.empty()) findings.Add(std::move(text));
  };
  note(ReadWords("message prefix", message, {14, 0, 1, 0}));
  std::vector<Field> fields = ReadFields(message, kPrefix, "service message", findings);
  const bool unregister = fields.size() > 1 && fields[1].tag == kUnregisterTag;
  FieldWalk walk(std::move(fields), "service message", findings);
  note(ReadWords("field 0x2001", walk.TakeSized(0x2001, 8), {1, 3}));
  if (unregister) {
    UnregisterService result{layout, {}};
    note(ReadWords("field 0x20cf", walk.TakeSized(kUnregisterTag, 4), {2}));
    result.name = walk.TakeText(0x2191);
    walk.Finish();
    return result;
  }
  RegisterService result;
  result.layout = layout;
  if (const auto title = walk.TakeOptional(0x20CA)) result.title = walk.CheckText(0x20CA, *title);
  if (const auto version = walk.TakeOptional(0x20CB)) {
    findings.Expect("product version: the size", version->size(), 40);
    result.version = DecodeVersion(*version, findings);
  }
  if (const auto session = walk.TakeOptional(0x20CC)) result.session = walk.CheckText(0x20CC, *session);
  if (const auto extra = walk.TakeOptional(0x20CD)) result.extra = Bytes(extra->begin(), extra->end());
  result.name = walk.TakeText(0x2191);
  if (result.name.empty()) findings.Add("service message: the service name is empty");
  walk.Finish();
  return result;
}

// Finds the sub-header and the data for the layout of the request, and adds findings for violations of that layout.
Notification DecodeRegistration(const GateRequest& request, Findings& findings) {
  ByteView head;
  Bytes data;
  std::size_t first_data = 0;  // the first buffer that holds data
  ServiceLayout layout = ServiceLayout::kInline;
  if (request.inline_data.empty()) {
    layout = ServiceLayout::kBuffers;
    if (request.buffers.empty()) {
      findings.Add("service message: neither inline data nor buffers");
      return Unknown{request.code, std::nullopt};
    }
    ExpectBuffer(request, 0, kSubHeaderSize, true, findings);
    head = request.buffers[0].data;
    first_data = 1;
  } else {
    head = Slice(request.inline_data, 0, kSubHeaderSize);
    findings.Expect("service message: the sub-header's bytes", head.size(), kSubHeaderSize);
    if (request.inline_data.size() == kSubHeaderSize && !request.buffers.empty()) layout = ServiceLayout::kInlineHead;
  }
  const SubHeader sub_header = ReadSubHeader("sub-header", head, findings);
  findings.Expect("sub-header: the reply capacity", sub_header.reply_capacity, 0);
  if (layout == ServiceLayout::kInline) {
    findings.Expect("service message: the buffer count of an inline message", request.buffers.size(), 0);
    const ByteView rest = Slice(request.inline_data, kSubHeaderSize);
    data.assign(rest.begin(), rest.end());
    if (data.size() > kLargestInline) findings.Add(Format("service message: %zu bytes sent inline", data.size()));
  } else {
    findings.Expect("service message: the buffer count", request.buffers.size(), first_data + 1);
    for (std::size_t i = first_data; i < request.buffers.size(); ++i) {
      ExpectBuffer(request, i, request.buffers[i].size, false, findings);
      AppendBytes(data, request.buffers[i].data);
    }
    if (layout == ServiceLayout::kInlineHead && data.size() <= kLargestInline) {
      findings.Add(Format("service message: an inline sub-header with only %zu bytes in a buffer", data.size()));
    }
  }
  findings.Expect("sub-header: the request length", sub_header.request_length, data.size());
  return DecodeMessage(data, layout, findings);
}

}  // namespace

Notification DecodeServiceMessage(const GateRequest& request, Findings& findings) {
  if (LooksLikeProbe(request)) return DecodeProbe(request, findings);
  return DecodeRegistration(request, findings);
}

}  // namespace qel::host
