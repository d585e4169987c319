// The service messages: register and unregister.
#include "tools_gate/link.h"
#include "tools_gate/little_endian.h"
#include "tools_gate/message_composer.h"
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

int Send(TgLink& link, const MessageComposer& message) {
  if (message.Result() != kBbSuccess) {
    return message.IsStarted() ? kTgFieldNotAdded : kTgNoMemory;
  }
  const std::span<std::byte> bytes = message.Bytes();
  StoreU32(bytes.data(), 14);
  StoreU32(bytes.data() + 8, 1);
  const int sent = TgLinkSendMessage(link, bytes.data(), static_cast<std::uint32_t>(bytes.size()), 0);
  return sent == kTgSuccess ? kTgSuccess : kTgNotDelivered;
}

}  // namespace

int TgRegisterService(TgLink& link, const char* name, const char* title, std::uint32_t flags_a, std::uint32_t flags_b,
                      const char* session, std::span<const std::byte> extra) {
  if (name == nullptr) {
    return kTgInvalidArgument;
  }
  MessageComposer message(kPrefixSize);
  message.PutNumbers({1, 3}, kMessageKind);
  if (title != nullptr) {
    message.PutText(title, kTitle);
  }
  if (flags_a != 0 || flags_b != 0) {
    message.PutNumbers(
        {kProductMajor, kProductMinor, kProductBuild, 0x80000000, flags_a, flags_b, kProductIdentification, 9, 0, 0},
        kProductVersionBlock);
  }
  if (session != nullptr) {
    message.PutText(session, kSession);
  }
  if (!extra.empty()) {
    message.Put(extra, kExtra);
  }
  message.PutText(name, kServiceName);
  return Send(link, message);
}

int TgUnregisterService(TgLink& link, const char* name) {
  MessageComposer message(kPrefixSize);
  message.PutNumbers({1, 3}, kMessageKind);
  message.PutNumbers({2}, kUnregister);
  message.PutText(name, kServiceName);
  return Send(link, message);
}

}  // namespace qel
