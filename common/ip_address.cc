#include "common/ip_address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "common/log.h"

namespace vantrel {

IpAddress IpAddress::FromIPv4NetworkBytes(uint32_t address) {
  IpAddress result;
  result.family_ = AF_INET;
  memcpy(result.address_, &address, sizeof(address));
  return result;
}

IpAddress IpAddress::FromIPv6NetworkBytes(const void* bytes) {
  IpAddress result;
  result.family_ = AF_INET6;
  memcpy(result.address_, bytes, sizeof(result.address_));
  return result;
}

IpAddress IpAddress::FromNetworkBytes(const std::string& bytes) {
  if (bytes.size() == sizeof(in6_addr)) {
    return FromIPv6NetworkBytes(bytes.data());
  }
  if (bytes.size() != sizeof(in_addr)) return IpAddress();
  uint32_t address;
  memcpy(&address, bytes.data(), sizeof(address));
  return FromIPv4NetworkBytes(address);
}

uint32_t IpAddress::GetAddrV4() const {
  if (family_ != AF_INET) {
    LOGE("Attempt to obtain in_addr from wrong addr family %d", family_);
    return 0;
  }
  uint32_t address;
  memcpy(&address, address_, sizeof(address));
  return address;
}

std::string IpAddress::ToNetworkBytes() const {
  return std::string(reinterpret_cast<const char*>(address_),
                     GetAddressBytes());
}

size_t IpAddress::GetAddressBytes() const {
  if (family_ == AF_INET) return sizeof(in_addr);
  if (family_ == AF_INET6) return sizeof(in6_addr);
  return 0;
}

uint32_t IpAddress::GetHashCode() const {
  uint32_t words[4];
  memcpy(words, address_, sizeof(words));
  if (family_ == AF_INET) return words[0];
  if (family_ != AF_INET6) return 0;
  return words[0] ^ words[1] ^ words[2] ^ words[3];
}

bool IpAddress::IsSameAs(const IpAddress& other) const {
  return family_ == other.family_ &&
         memcmp(address_, other.address_, GetAddressBytes()) == 0;
}

std::string IpAddress::ToString() const {
  char text[INET6_ADDRSTRLEN];
  if (family_ == 0 ||
      inet_ntop(family_, address_, text, sizeof(text)) == nullptr) {
    return "";
  }
  return text;
}

}  // namespace vantrel
