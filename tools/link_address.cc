#include "tools/link_address.h"

#include <sys/un.h>

#include <charconv>

namespace vantrel {
namespace {

bool ParseUnix(const std::string& rest, link_address_t* address,
               std::string* reason) {
  address->path = rest;
  if (rest.empty()) {
    *reason = "no path";
  } else if (rest.size() >= sizeof(sockaddr_un::sun_path)) {
    *reason = "the path is longer than a socket address can hold";
  }
  return reason->empty();
}

bool ParseTcp(const std::string& rest, link_address_t* address,
              std::string* reason) {
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    *reason = "expected HOST:PORT";
    return false;
  }
  address->host = rest.substr(0, colon);
  address->port = rest.substr(colon + 1);
  std::string& host = address->host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    *reason = "an IPv6 host needs brackets";
    return false;
  }
  if (!ParseDecimal(address->port, 1, 65535)) {
    *reason = "the port is not a number from 1 to 65535";
  }
  return reason->empty();
}

bool ParseBluetoothAddress(const std::string& text,
                           std::array<uint8_t, 6>* address) {
  if (text.size() != 17) return false;
  for (size_t i = 0; i < address->size(); ++i) {
    const char* digits = text.data() + 3 * i;
    if (i > 0 && digits[-1] != ':') return false;
    const auto end = std::from_chars(digits, digits + 2, (*address)[i], 16);
    if (end.ec != std::errc() || end.ptr != digits + 2) return false;
  }
  return true;
}

bool ParseRfcomm(const std::string& rest, link_address_t* address,
                 std::string* reason) {
  const size_t slash = rest.find('/');
  if (slash == std::string::npos ||
      !ParseBluetoothAddress(rest.substr(0, slash), &address->bluetooth)) {
    *reason = "expected XX:XX:XX:XX:XX:XX/CHANNEL";
    return false;
  }
  const auto channel = ParseDecimal(rest.substr(slash + 1), 1, 30);
  if (!channel) *reason = "the channel is not a number from 1 to 30";
  address->channel = channel.value_or(0);
  return channel.has_value();
}

bool ParseFd(const std::string& rest, link_address_t* address,
             std::string* reason) {
  const auto fd = ParseDecimal(rest, 0, 1 << 20);
  if (!fd) *reason = "expected the number of an open descriptor";
  address->fd = fd.value_or(-1);
  return fd.has_value();
}

}  // namespace

std::optional<int> ParseDecimal(const std::string& text, int min, int max) {
  int value = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  if (value < min || value > max) return std::nullopt;
  return value;
}

std::optional<link_address_t> ParseLinkAddress(const std::string& text,
                                               std::string* reason) {
  struct kind_t {
    const char* name;
    link_address_t::Kind kind;
    bool (*parse)(const std::string&, link_address_t*, std::string*);
  };
  static constexpr kind_t kKinds[] = {
      {"unix", link_address_t::kUnix, ParseUnix},
      {"tcp", link_address_t::kTcp, ParseTcp},
      {"rfcomm", link_address_t::kRfcomm, ParseRfcomm},
      {"fd", link_address_t::kFd, ParseFd},
  };
  reason->clear();
  const size_t colon = text.find(':');
  for (const kind_t& kind : kKinds) {
    if (text.compare(0, colon, kind.name) != 0 || colon == std::string::npos) {
      continue;
    }
    link_address_t address;
    address.kind = kind.kind;
    address.text = text;
    if (!kind.parse(text.substr(colon + 1), &address, reason)) {
      return std::nullopt;
    }
    return address;
  }
  *reason = "expected unix:PATH, tcp:HOST:PORT, rfcomm:BDADDR/CHANNEL or fd:N";
  return std::nullopt;
}

}  // namespace vantrel
