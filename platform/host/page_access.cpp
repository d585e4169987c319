#include "host/page_access.h"

#include <arpa/inet.h>
#include <sys/random.h>

#include <charconv>
#include <cstdint>
#include <stdexcept>
#include <vector>

#include "host/bytes.h"

namespace qel::host {
namespace {

bool IsNumeric(const std::string& address, int family) {
  unsigned char parsed[sizeof(in6_addr)];
  return inet_pton(family, address.c_str(), parsed) == 1;
}

struct HostAndPort {
  std::string host;  // without brackets
  std::string port;
};

// Divides "host", "host:port", "[address]" or "[address]:port"; empty if it is none of them.
HostAndPort Divide(const std::string& text) {
  if (text.starts_with('[')) {
    const std::size_t end = text.find(']');
    if (end == std::string::npos) return {};
    const std::string rest = text.substr(end + 1);
    if (!rest.empty() && rest[0] != ':') return {};
    return {text.substr(1, end - 1), rest.empty() ? "" : rest.substr(1)};
  }
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return {text, ""};
  return {text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace

std::optional<PageAddress> ParsePageAddress(const std::string& text) {
  PageAddress result;
  std::string port = text;
  if (text.find(':') != std::string::npos) {
    HostAndPort parts = Divide(text);
    if (parts.host == "localhost") parts.host = result.address;
    if (!IsNumeric(parts.host, text[0] == '[' ? AF_INET6 : AF_INET)) return std::nullopt;
    result.address = parts.host;
    port = parts.port;
  }
  const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), result.port);
  const bool whole = error == std::errc() && end == port.data() + port.size();
  if (!whole || result.port < 0 || result.port > UINT16_MAX) return std::nullopt;
  return result;
}

std::string UrlHost(const std::string& address) {
  return IsNumeric(address, AF_INET6) ? "[" + address + "]" : address;
}

bool IsLoopback(const std::string& address) {
  return address == "::1" || (address.starts_with("127.") && IsNumeric(address, AF_INET));
}

std::string RandomHex(std::size_t bytes) {
  std::vector<unsigned char> random(bytes);
  if (getrandom(random.data(), bytes, 0) != static_cast<ssize_t>(bytes)) throw std::runtime_error("no random numbers");
  std::string text;
  for (const unsigned byte : random) text += Format("%02x", byte);
  return text;
}

bool IsSecret(const std::string& sent, const std::string& secret) {
  if (sent.size() != secret.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < secret.size(); ++i) {
    difference |= static_cast<unsigned>(sent[i]) ^ static_cast<unsigned>(secret[i]);
  }
  return difference == 0;
}

bool HasNumericHost(const RequestOrigin& request) {
  const std::string host = Divide(request.host).host;
  return host == "localhost" || IsNumeric(host, AF_INET) || IsNumeric(host, AF_INET6);
}

bool IsSameOrigin(const RequestOrigin& request) {
  // "none": the user has typed the address or opened it from another program.
  const bool site = request.fetch_site.empty() || request.fetch_site == "same-origin" || request.fetch_site == "none";
  return site && (request.origin.empty() || request.origin == "http://" + request.host);
}

}  // namespace qel::host
