#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace vantrel {

// One IPv4 or IPv6 address, or none. A plain value: copied freely, no heap.
class IpAddress {
 public:
  // No address: family 0, all bytes zero.
  IpAddress() = default;

  // |address| as it stands in an in_addr, in network byte order.
  static IpAddress FromIPv4NetworkBytes(uint32_t address);
  // |bytes| points to 16 bytes in network byte order.
  static IpAddress FromIPv6NetworkBytes(const void* bytes);
  // 4 bytes make an IPv4 address, 16 an IPv6 address, any other number none.
  static IpAddress FromNetworkBytes(const std::string& bytes);

  // 0, AF_INET or AF_INET6.
  int32_t GetFamily() const { return family_; }
  // The IPv4 address in network byte order. For another family logs an error
  // and returns 0.
  uint32_t GetAddrV4() const;
  // The inverse of FromNetworkBytes: 4, 16 or no bytes.
  std::string ToNetworkBytes() const;
  // The address bytes as native 32-bit words, joined by exclusive-or; 0 for no
  // address.
  uint32_t GetHashCode() const;
  // Same family and same address; no address is the same as no address. An
  // IPv4 address and its IPv4-mapped form are not the same.
  bool IsSameAs(const IpAddress& other) const;
  // As inet_ntop writes it; empty for no address.
  std::string ToString() const;

 private:
  // How many bytes of |address_| the family uses.
  size_t GetAddressBytes() const;

  int32_t family_ = 0;
  // Network byte order. IPv4 uses the first 4 bytes.
  uint8_t address_[16] = {};
};

}  // namespace vantrel
