// The pieces the decoder is made of; not meant for others.
#pragma once

#include "host/decoder.h"

namespace qel::host {

// Collects what a message does wrong.
class Findings {
 public:
  explicit Findings(std::vector<std::string>& texts) : texts_(texts) {}

  void Add(std::string text) { texts_.push_back(std::move(text)); }
  // Notes `what` unless the value is the expected one.
  void Expect(const char* what, std::uint64_t value, std::uint64_t expected);
  // Notes the first byte that is not zero in `bytes`, which lie at `offset` of the message.
  void ExpectZero(const char* what, ByteView bytes, std::size_t offset);

 private:
  std::vector<std::string>& texts_;
};

// A field of a message buffer.
struct Field {
  std::uint32_t tag = 0;
  ByteView data;
};

// All fields of the message buffer that begins at `prefix` of `block`, which has to end with it. Stops at the first
// field that cannot be read; `where` names the buffer in the findings.
std::vector<Field> ReadFields(ByteView block, std::size_t prefix, const char* where, Findings& findings);

// Walks over fields that have to come in a fixed order; optional ones may be missing.
class FieldWalk {
 public:
  FieldWalk(std::vector<Field> fields, const char* where, Findings& findings)
      : fields_(std::move(fields)), where_(where), findings_(findings) {}

  // The next field if it has this tag. Take() notes its absence, TakeOptional() does not.
  std::optional<ByteView> Take(std::uint32_t tag);
  std::optional<ByteView> TakeOptional(std::uint32_t tag);
  // As Take(), with the field's only allowed size noted too.
  std::optional<ByteView> TakeSized(std::uint32_t tag, std::size_t size);
  // A text without terminator.
  std::string TakeText(std::uint32_t tag);
  std::string CheckText(std::uint32_t tag, ByteView data);
  bool AtEnd() const { return next_ == fields_.size(); }
  // Notes every field that was not taken.
  void Finish();

 private:
  std::vector<Field> fields_;
  const char* where_;
  Findings& findings_;
  std::size_t next_ = 0;
};

// service_messages.cpp: requests with the code kServiceRequest.
Notification DecodeServiceMessage(const GateRequest& request, Findings& findings);
// guest_messages.cpp: requests with the code kGuestCommandRequest.
Notification DecodeGuestCommand(const GateRequest& request, Findings& findings);
// menu_message.cpp: the body of the applications menu, a whole command block.
AppMenu DecodeAppMenu(ByteView block, Findings& findings);

}  // namespace qel::host
