// Internal parts of the decoder.
#pragma once

#include "host/decoder.h"

namespace qel::host {

// Collects the violations of a message.
class Findings {
 public:
  explicit Findings(std::vector<std::string>& texts) : texts_(texts) {}

  void Add(std::string text) { texts_.push_back(std::move(text)); }
  // Adds a finding about `what` if the value is not the expected one.
  void Expect(const char* what, std::uint64_t value, std::uint64_t expected);
  // Adds a finding about the first byte in `bytes` that is not zero. `offset` is the position of `bytes` in the
  // message.
  void ExpectZero(const char* what, ByteView bytes, std::size_t offset);

 private:
  std::vector<std::string>& texts_;
};

// A field of a message buffer.
struct Field {
  std::uint32_t tag = 0;
  ByteView data;
};

// Returns the fields of the message buffer in `block`, from offset `prefix` to the end of the block. Stops at the first
// field that cannot be read. `where` is the name of the buffer in the findings.
std::vector<Field> ReadFields(ByteView block, std::size_t prefix, const char* where, Findings& findings);

// Reads fields that must be in a fixed order; optional fields may be missing.
class FieldWalk {
 public:
  FieldWalk(std::vector<Field> fields, const char* where, Findings& findings)
      : fields_(std::move(fields)), where_(where), findings_(findings) {}

  // Returns the next field if it has this tag. If not, Take() adds a finding, and TakeOptional() does not.
  std::optional<ByteView> Take(std::uint32_t tag);
  std::optional<ByteView> TakeOptional(std::uint32_t tag);
  // Like Take(); also adds a finding if the field does not have this size.
  std::optional<ByteView> TakeSized(std::uint32_t tag, std::size_t size);
  // Takes a text field, which has no terminating NUL.
  std::string TakeText(std::uint32_t tag);
  std::string CheckText(std::uint32_t tag, ByteView data);
  bool AtEnd() const { return next_ == fields_.size(); }
  // Adds a finding for each field that was not taken.
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
