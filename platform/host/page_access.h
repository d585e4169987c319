// Who may see the page: the address that it is served at, its secrets, and which requests come from the page itself.
#pragma once

#include <optional>
#include <string>

namespace qel::host {

struct PageAddress {
  std::string address = "127.0.0.1";  // of the interface; an IPv6 address without brackets
  int port = 0;                       // 0: the system chooses one
};

// Reads "[ADDRESS:]PORT"; an IPv6 address stands in brackets. Returns std::nullopt if the text is something else.
std::optional<PageAddress> ParsePageAddress(const std::string& text);
// The address as it stands in a URL, without the port.
std::string UrlHost(const std::string& address);
// Whether only programs of this machine can connect to the address.
bool IsLoopback(const std::string& address);

// So many random bytes of the kernel in hexadecimal digits.
std::string RandomHex(std::size_t bytes);
// Compares a secret with what somebody sent; the time does not depend on how much of it is right.
bool IsSecret(const std::string& sent, const std::string& secret);

// What a request says about where it comes from; empty where it says nothing.
struct RequestOrigin {
  std::string host;        // header Host
  std::string origin;      // header Origin
  std::string fetch_site;  // header Sec-Fetch-Site
};

// Whether the request names the server by an IP address or as localhost. A page of somebody else whose name leads to
// this machine (DNS rebinding) counts as the same origin for a browser, but has that name in the header Host.
bool HasNumericHost(const RequestOrigin& request);
// Whether no page of another origin has made the request.
bool IsSameOrigin(const RequestOrigin& request);

}  // namespace qel::host
