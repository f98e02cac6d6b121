#pragma once

#include <stdint.h>

#include <string>

#include "common/host_and_port.h"
#include "common/uid.h"

namespace vantrel {

// Which application owns a local flow, and what its package is called. Reads
// the kernel's socket tables and asks the platform's permission service.
// Failures are logged and come out as kUidNotFound or an empty name.
class UidHelper {
 public:
  static constexpr uint32_t kUidNotFound = kNobodyUid;

  // The owner of the connection that was accepted as |fd|.
  static uint32_t FindOwnerUidForTcpSocket(int fd);
  // The owner of the UDP socket for that flow. Remembers the answer, also that
  // there is none, for the flow's next 9 seconds.
  static uint32_t FindOwnerUidForDatagram(const HostAndPort& local,
                                          const HostAndPort& remote);
  // The scans behind it. Two owners of one flow make it ambiguous: not found.
  static uint32_t FindOwnerUidForDatagramIpV4(const HostAndPort& local,
                                              const HostAndPort& remote);
  static uint32_t FindOwnerUidForDatagramIpV6(const HostAndPort& local,
                                              const HostAndPort& remote);
  // The first package of |uid|, in UTF-8.
  static std::string FindOwnerPackageName(uint32_t uid);
};

}  // namespace vantrel
