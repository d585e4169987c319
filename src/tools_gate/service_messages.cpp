// The service messages: register and unregister.
#include <array>
#include <cstring>

#include "tools_gate/link.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_buffer.h"
#include "tools_gate/product_version.h"

namespace qel {
namespace {

enum FieldTag : std::uint32_t {
  kMessageKind = 0x2001,
  kTitle = 0x20CA,
  kProductVersionBlock = 0x20CB,
  kSession = 0x20CC,
  kExtra = 0x20CD,
  kUnregister = 0x20CF,
  kServiceName = 0x2191,
};

constexpr std::uint32_t kPrefixSize = 16;

// A service message being composed. Once something failed, nothing more is done.
class ServiceMessage {
 public:
  ServiceMessage() {
    if (bbCompose(buffer_, kPrefixSize) != kBbSuccess) {
      result_ = kTgNoMemory;
      return;
    }
    std::byte* const prefix = bbData(buffer_);
    StoreU32(prefix, 14);
    StoreU32(prefix + 4, 0);
    StoreU32(prefix + 8, 1);
    StoreU32(prefix + 12, 0);
    std::array<std::byte, 8> kind{};
    StoreU32(kind.data(), 1);
    StoreU32(kind.data() + 4, 3);
    Put(kind, kMessageKind);
  }

  void Put(std::span<const std::byte> data, std::uint32_t tag) {
    if (result_ == kTgSuccess &&
        bbPut(buffer_, data.data(), static_cast<std::uint32_t>(data.size()), tag) != kBbSuccess) {
      result_ = kTgFieldNotAdded;
    }
  }

  void PutText(const char* text, std::uint32_t tag) { Put(std::as_bytes(std::span(text, std::strlen(text))), tag); }

  int Send(TgLink& link) {
    if (result_ != kTgSuccess) {
      return result_;
    }
    const bool sent = TgLinkSendMessage(link, bbData(buffer_), bbSize(buffer_), 0) == kTgSuccess;
    return sent ? kTgSuccess : kTgNotDelivered;
  }

 private:
  MessageBuffer buffer_;
  MessageBufferOwner owner_{buffer_};
  int result_ = kTgSuccess;
};

std::array<std::byte, 40> VersionBlock(std::uint32_t flags_a, std::uint32_t flags_b) {
  std::array<std::byte, 40> block{};
  std::size_t offset = 0;
  for (const std::uint32_t value :
       {kProductMajor, kProductMinor, kProductBuild, 0x80000000, flags_a, flags_b, kProductIdentification}) {
    StoreU32(block.data() + offset, value);
    offset += sizeof(value);
  }
  block[offset] = std::byte{9};
  return block;
}

}  // namespace

int TgRegisterService(TgLink& link, const char* name, const char* title, std::uint32_t flags_a, std::uint32_t flags_b,
                      const char* session, std::span<const std::byte> extra) {
  if (name == nullptr) {
    return kTgInvalidArgument;
  }
  ServiceMessage message;
  if (title != nullptr) {
    message.PutText(title, kTitle);
  }
  if (flags_a != 0 || flags_b != 0) {
    message.Put(VersionBlock(flags_a, flags_b), kProductVersionBlock);
  }
  if (session != nullptr) {
    message.PutText(session, kSession);
  }
  if (!extra.empty()) {
    message.Put(extra, kExtra);
  }
  message.PutText(name, kServiceName);
  return message.Send(link);
}

int TgUnregisterService(TgLink& link, const char* name) {
  std::array<std::byte, 4> unregister{};
  StoreU32(unregister.data(), 2);
  ServiceMessage message;
  message.Put(unregister, kUnregister);
  message.PutText(name, kServiceName);
  return message.Send(link);
}

}  // namespace qel
