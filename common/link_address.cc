#include "common/link_address.h"

#include <stddef.h>
#include <string.h>

#include <charconv>

namespace vantrel {
namespace {

constexpr int kMaxPort = 65535;
constexpr int kMaxRfcommChannel = 30;
// More than any system lets a process open.
constexpr int kMaxDescriptor = 1 << 30;

// |text| as a decimal number from |min| to |max|, nothing before or after it.
std::optional<int> ParseDecimal(const std::string& text, int min, int max) {
  int value = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, value);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  if (value < min || value > max) return std::nullopt;
  return value;
}

// Each parser gets what follows its name and the colon, and returns the reason
// why it is refused, or nullptr.
using Parser = const char* (*)(const std::string& rest, LinkSide side,
                               link_address_t* address);

const char* ParseUnix(const std::string& rest, LinkSide /*side*/,
                      link_address_t* address) {
  address->path = rest;
  if (rest.empty() || rest == "@") return "no path";
  if (rest.size() >= sizeof(sockaddr_un::sun_path)) {
    return "the path is longer than a socket address can hold";
  }
  return nullptr;
}

const char* ParseTcp(const std::string& rest, LinkSide side,
                     link_address_t* address) {
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos || colon == 0) return "expected HOST:PORT";
  address->host = rest.substr(0, colon);
  address->port = rest.substr(colon + 1);
  std::string& host = address->host;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find_first_of("[]:") != std::string::npos) {
    return "an IPv6 host needs brackets";
  }
  if (side == LinkSide::kListen) {
    return ParseDecimal(address->port, 0, kMaxPort)
               ? nullptr
               : "the port is not a number from 0 to 65535";
  }
  return ParseDecimal(address->port, 1, kMaxPort)
             ? nullptr
             : "the port is not a number from 1 to 65535";
}

const char* ParseRfcomm(const std::string& rest, LinkSide side,
                        link_address_t* address) {
  std::string channel = rest;
  if (side == LinkSide::kConnect) {
    const size_t slash = rest.find('/');
    address->bluetooth = ParseBluetoothAddress(rest.substr(0, slash));
    if (slash == std::string::npos || !address->bluetooth) {
      return "expected XX:XX:XX:XX:XX:XX/CHANNEL";
    }
    channel = rest.substr(slash + 1);
  }
  const auto number = ParseDecimal(channel, 1, kMaxRfcommChannel);
  if (!number) return "the channel is not a number from 1 to 30";
  address->channel = *number;
  return nullptr;
}

const char* ParseBluetooth(const std::string& rest, LinkSide side,
                           link_address_t* address) {
  if (side == LinkSide::kListen) return "nothing may follow when listening";
  address->bluetooth = ParseBluetoothAddress(rest);
  return address->bluetooth ? nullptr : "expected XX:XX:XX:XX:XX:XX";
}

const char* ParseFd(const std::string& rest, LinkSide side,
                    link_address_t* address) {
  if (side == LinkSide::kListen) return "nobody can listen on a descriptor";
  const auto fd = ParseDecimal(rest, 0, kMaxDescriptor);
  if (!fd) return "expected the number of an open descriptor";
  address->fd = *fd;
  return nullptr;
}

}  // namespace

std::optional<link_address_t> ParseLinkAddress(const std::string& text,
                                               LinkSide side,
                                               std::string* reason) {
  struct kind_t {
    const char* prefix;
    link_address_t::Kind kind;
    Parser parse;
  };
  static constexpr kind_t kKinds[] = {
      {"unix:", link_address_t::Kind::kUnix, ParseUnix},
      {"tcp:", link_address_t::Kind::kTcp, ParseTcp},
      {"rfcomm:", link_address_t::Kind::kRfcomm, ParseRfcomm},
      {"bluetooth:", link_address_t::Kind::kBluetooth, ParseBluetooth},
      {"fd:", link_address_t::Kind::kFd, ParseFd},
  };
  if (text == kBluetoothLink) {
    link_address_t address;
    address.kind = link_address_t::Kind::kBluetooth;
    address.text = text;
    return address;
  }
  for (const kind_t& kind : kKinds) {
    const size_t length = strlen(kind.prefix);
    if (text.compare(0, length, kind.prefix) != 0) continue;
    link_address_t address;
    address.kind = kind.kind;
    address.text = text;
    const char* const fault = kind.parse(text.substr(length), side, &address);
    if (fault == nullptr) return address;
    *reason = fault;
    return std::nullopt;
  }
  *reason = side == LinkSide::kListen
                ? "expected bluetooth, unix:PATH, tcp:HOST:PORT or "
                  "rfcomm:CHANNEL"
                : "expected bluetooth[:BDADDR], unix:PATH, tcp:HOST:PORT, "
                  "rfcomm:BDADDR/CHANNEL or fd:N";
  return std::nullopt;
}

socklen_t ToSocketAddress(const std::string& path, sockaddr_un* out) {
  *out = {};
  out->sun_family = AF_UNIX;
  memcpy(out->sun_path, path.data(), path.size());
  // An abstract name begins with a zero byte and is not terminated.
  const bool is_abstract = path[0] == '@';
  if (is_abstract) out->sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() +
                                (is_abstract ? 0 : 1));
}

}  // namespace vantrel
