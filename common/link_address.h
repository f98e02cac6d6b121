#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <optional>
#include <string>

#include "common/bluetooth_address.h"

namespace vantrel {

// An end of the link, as a command line names it. To connect to:
//   bluetooth (the paired machine that offers the service), bluetooth:BDADDR,
//   unix:PATH, tcp:HOST:PORT, rfcomm:BDADDR/CHANNEL, fd:N
// To listen on:
//   bluetooth (all adapters), unix:PATH, tcp:HOST:PORT (0: any port),
//   rfcomm:CHANNEL (any adapter)
// A PATH that begins with "@" is an abstract name; an IPv6 HOST has brackets.
struct link_address_t {
  enum class Kind { kUnix, kTcp, kRfcomm, kFd, kBluetooth };

  Kind kind = Kind::kUnix;
  std::string text;  // as given, for messages
  std::string path;  // unix; not empty, fits sockaddr_un
  std::string host;  // tcp, without brackets
  std::string port;  // tcp, decimal
  // rfcomm; bluetooth, where none was named: to be found.
  std::optional<BluetoothAddress> bluetooth;
  int channel = 0;  // rfcomm, 1 to 30
  int fd = -1;      // fd; not looked at
};

enum class LinkSide { kConnect, kListen };

// Of a link that the programs find by its Bluetooth service.
constexpr char kBluetoothLink[] = "bluetooth";

// None when |text| is no address for |side|; |reason| then says why, in a few
// words without |text|.
std::optional<link_address_t> ParseLinkAddress(const std::string& text,
                                               LinkSide side,
                                               std::string* reason);

// Fills |out| for the |path| of a link's address. The length to give to bind()
// or connect().
socklen_t ToSocketAddress(const std::string& path, sockaddr_un* out);

}  // namespace vantrel
