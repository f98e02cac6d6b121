#include "capture/tcp_owners.h"

#include <arpa/inet.h>
#include <stdint.h>
#include <string.h>

#include <memory>

#include "common/interception.h"
#include "common/monotonic_clock.h"
#include "common/uid.h"

namespace vantrel {
namespace {

constexpr int kMaxLooks = 2;
constexpr int64_t kMaxAgeMs = 10;

// As the kernel prints the state of a connection.
constexpr uint8_t kEstablished = 0x01;
constexpr uint8_t kTimeWait = 0x06;
constexpr uint8_t kCloseWait = 0x08;

int64_t GetMillisecondsSince(const timespec& begin) {
  const timespec now = MonotonicNow();
  return (int64_t{now.tv_sec} - begin.tv_sec) * 1000 +
         (now.tv_nsec - begin.tv_nsec) / 1000000;
}

// Established, and without a descriptor as yet.
bool WaitsToBeAccepted(const tcp_row_t& row) {
  return row.inode == 0 &&
         (row.state == kEstablished || row.state == kCloseWait);
}

bool IsAt(const HostAndPort& end, uint32_t address, uint16_t port) {
  return end == HostAndPort(IpAddress::FromIPv4NetworkBytes(address), port);
}

bool ToIPv4(const tcp_row_t& row, tcp_row_t* out) {
  *out = row;
  return true;
}

// False for a row that is not of IPv4-mapped addresses.
bool ToIPv4(const tcp6_row_t& row, tcp_row_t* out) {
  out->port = row.port;
  out->remote_port = row.remote_port;
  out->state = row.state;
  out->uid = row.uid;
  out->inode = row.inode;
  return SocketTable::ParseMapped(row.address, &out->address) &&
         SocketTable::ParseMapped(row.remote_address, &out->remote_address);
}

}  // namespace

// What has lost its socket has no inode, and as a rule no owner any more.
bool HasEnded(const tcp_row_t& row) {
  return row.state == kTimeWait || (row.inode == 0 && row.uid == 0);
}

uint32_t TcpOwners::Find(const connection_t& connection) {
  uint32_t uid = kNobodyUid;
  if (IsServedByLastLook(connection)) uid = GetOwner(connection);
  for (int looks = 0; uid == kNobodyUid && looks < kMaxLooks; ++looks) {
    const bool may_find_more = Look(connection);
    uid = GetOwner(connection);
    if (!may_find_more) break;
  }
  // What serves nobody else need not stay.
  if (waiting_.empty()) owned_ = {};
  return uid;
}

// Where the application's own port is not known, what has come since the look
// could make the answer another one.
bool TcpOwners::IsServedByLastLook(const connection_t& connection) {
  return waiting_.erase(connection.peer) != 0 && connection.source_port != 0 &&
         GetMillisecondsSince(end_) < kMaxAgeMs;
}

bool TcpOwners::Look(const connection_t& connection) {
  waiting_.clear();
  owned_.clear();
  std::unique_ptr<SocketTable> table = SocketTable::Open("tcp");
  if (!table) return false;
  bool is_met = ReadRows<tcp_row_t>(table.get(), connection);
  if (!is_met) {
    table.reset();  // first, so that one descriptor is enough
    table = SocketTable::Open("tcp6");
    if (!table) return false;
    is_met = ReadRows<tcp6_row_t>(table.get(), connection);
  }
  end_ = MonotonicNow();
  return !is_met;
}

template <typename Row>
bool TcpOwners::ReadRows(SocketTable* table, const connection_t& connection) {
  Row row;
  tcp_row_t plain;
  bool is_met = false;
  while (!(is_met && waiting_.empty()) && table->Next(&row)) {
    if (ToIPv4(row, &plain) && Note(plain, connection)) is_met = true;
  }
  return is_met;
}

bool TcpOwners::Note(const tcp_row_t& row, const connection_t& connection) {
  const uint32_t application = htonl(kApplicationAddress);
  if (row.address != application) {
    if (row.remote_address == application && WaitsToBeAccepted(row) &&
        IsAt(connection.local, row.address, row.port)) {
      waiting_.insert(
          HostAndPort(IpAddress::FromIPv4NetworkBytes(row.remote_address),
                      row.remote_port));
    }
    return false;
  }
  if (!HasEnded(row)) {
    owned_.push_back({row.port, row.remote_port, row.remote_address, row.uid});
  }
  // No two connections have the same ends, so this is the one, ended or not.
  return row.port == connection.source_port &&
         IsAt(connection.destination, row.remote_address, row.remote_port);
}

// Two owners are none, also of what seems to be one connection: the table is
// read in pieces.
uint32_t TcpOwners::GetOwner(const connection_t& connection) const {
  const uint16_t port = connection.source_port;
  const owned_t* found = nullptr;
  for (const owned_t& owned : owned_) {
    if ((port != 0 && owned.source_port != port) ||
        !IsAt(connection.destination, owned.destination,
              owned.destination_port)) {
      continue;
    }
    if (found != nullptr && found->uid != owned.uid) return kNobodyUid;
    found = &owned;
  }
  return found == nullptr ? kNobodyUid : found->uid;
}

}  // namespace vantrel
