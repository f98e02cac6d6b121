#pragma once

#include <string>

namespace vantrel {

// Who is at the other end of a link.
struct link_peer_t {
  std::string text;  // for the log
  // The same each time that the device connects: its Bluetooth or IP address;
  // where it has none, |link|.
  std::string device;
  // Where it has connected: an address of --listen as it was given, or kFdLink.
  std::string link;
};

// Of a link whose socket was inherited.
constexpr char kFdLink[] = "fd";

// The address in "HOST:PORT", as a person writes it: an IPv6 address has no
// brackets, and one that stands for an IPv4 address is that.
inline std::string GetAddressOf(const std::string& host_and_port) {
  constexpr char kMapped[] = "::ffff:";
  std::string host = host_and_port.substr(0, host_and_port.rfind(':'));
  if (!host.empty() && host.front() == '[') {
    host = host.substr(1, host.size() - 2);
  }
  const bool is_mapped =
      host.rfind(kMapped, 0) == 0 && host.find('.') != std::string::npos;
  return is_mapped ? host.substr(sizeof(kMapped) - 1) : host;
}

// |text| is what a listener says of its peer, see LinkListener::OnLink.
inline link_peer_t MakeLinkPeer(const std::string& text,
                                const std::string& link) {
  const size_t colon = text.find(':');
  const std::string kind = text.substr(0, colon);
  const std::string rest =
      colon == std::string::npos ? "" : text.substr(colon + 1);
  if (kind == "rfcomm" || kind == "bluetooth") return {text, rest, link};
  // Each connection comes from a port of its own.
  if (kind == "tcp") return {text, GetAddressOf(rest), link};
  return {text, link, link};
}

}  // namespace vantrel
