#pragma once

#include <stdint.h>

#include <array>
#include <optional>
#include <string>

namespace vantrel {

// Where the companion is, as given on the command line: "unix:PATH",
// "tcp:HOST:PORT" with an IPv6 host in brackets, "rfcomm:BDADDR/CHANNEL" or
// "fd:N".
struct link_address_t {
  enum Kind { kUnix, kTcp, kRfcomm, kFd };

  Kind kind = kUnix;
  std::string text;                       // as given, for messages
  std::string path;                       // unix; "@" first: abstract name
  std::string host;                       // tcp, without brackets
  std::string port;                       // tcp, decimal
  std::array<uint8_t, 6> bluetooth = {};  // rfcomm, in the order as printed
  int channel = 0;                        // rfcomm, 1 to 30
  int fd = -1;                            // fd
};

// None when |text| is no link address; |reason| then says why.
std::optional<link_address_t> ParseLinkAddress(const std::string& text,
                                               std::string* reason);

// |text| as a decimal number from |min| to |max|, nothing before or after it.
std::optional<int> ParseDecimal(const std::string& text, int min, int max);

}  // namespace vantrel
