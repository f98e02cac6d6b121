#include "link/v1_wire.h"

#include <string.h>

#include "common/byte_order.h"

namespace vantrel {
namespace v1 {
namespace {

enum class Sender { kNobody, kDaemon, kCompanion, kBoth };

struct layout_t {
  Sender sender;
  size_t header_bytes;
  size_t length_offset;  // 0: no payload
};

layout_t GetLayout(uint8_t type) {
  switch (type) {
    case TYPE_TCP_CONNECT:
      return {Sender::kDaemon, 13, 0};
    case TYPE_TCP_CLOSE:
    case TYPE_PING_ECHO:
      return {Sender::kBoth, 5, 0};
    case TYPE_TCP_WRITE_ACK:
      return {Sender::kCompanion, 5, 0};
    case TYPE_TCP_DATA:
      return {Sender::kBoth, 7, 5};
    case TYPE_PULL_DATA:
    case TYPE_HANDSHAKE_ACK:
      return {Sender::kCompanion, 7, 5};
    case TYPE_PUSH_DATA:
    case TYPE_HANDSHAKE:
    case TYPE_HANDSHAKE_DONE:
      return {Sender::kDaemon, 7, 5};
    case TYPE_UDP_DATAGRAM:
      return {Sender::kBoth, 9, 7};
    case TYPE_UDP_FAILURE:
      return {Sender::kCompanion, 9, 7};
    case TYPE_PULL_REQUEST:
    case TYPE_PUSH_REQUEST:
      return {Sender::kDaemon, 9, 0};
    case TYPE_PACKAGE_NAME:
      return {Sender::kDaemon, 5, 3};
    case TYPE_ACTIVE_NETWORK_STATE:
      return {Sender::kCompanion, 6, 0};
    case TYPE_UDP_DATAGRAM_V2:
      return {Sender::kBoth, 17, 15};
    case TYPE_UDP_FAILURE_V2:
      return {Sender::kCompanion, 15, 13};
    default:
      return {Sender::kNobody, 0, 0};
  }
}

std::string Begin(uint8_t type) {
  return std::string(1, static_cast<char>(type));
}

std::string BeginWithId(uint8_t type, uint32_t id) {
  std::string out = Begin(type);
  PutBe32(&out, id);
  return out;
}

void PutLength(std::string* out, size_t length) {
  PutBe16(out, static_cast<uint16_t>(length));
}

void PutEndpoint(std::string* out, const HostAndPort& endpoint) {
  const uint32_t address = endpoint.host.GetAddrV4();
  out->append(reinterpret_cast<const char*>(&address), sizeof(address));
  PutBe16(out, endpoint.port);
}

HostAndPort GetEndpoint(const char* p) {
  uint32_t address;
  memcpy(&address, p, sizeof(address));
  return HostAndPort(IpAddress::FromIPv4NetworkBytes(address), GetBe16(p + 4));
}

}  // namespace

bool IsFromDaemon(uint8_t type) {
  const Sender sender = GetLayout(type).sender;
  return sender == Sender::kDaemon || sender == Sender::kBoth;
}

bool IsFromCompanion(uint8_t type) {
  const Sender sender = GetLayout(type).sender;
  return sender == Sender::kCompanion || sender == Sender::kBoth;
}

size_t GetHeaderSize(uint8_t type) { return GetLayout(type).header_bytes; }

size_t GetMessageSize(const char* data, size_t available) {
  if (available == 0) return 0;
  const layout_t layout = GetLayout(GetU8(data));
  if (available < layout.header_bytes) return 0;
  if (layout.length_offset == 0) return layout.header_bytes;
  return layout.header_bytes + GetBe16(data + layout.length_offset);
}

std::string TcpConnect(uint32_t stream_id, const HostAndPort& remote,
                       uint16_t uid) {
  std::string out = BeginWithId(TYPE_TCP_CONNECT, stream_id);
  PutEndpoint(&out, remote);
  PutBe16(&out, uid);
  return out;
}

std::string TcpClose(uint32_t stream_id) {
  return BeginWithId(TYPE_TCP_CLOSE, stream_id);
}

std::string TcpData(uint32_t stream_id, size_t length) {
  std::string out = BeginWithId(TYPE_TCP_DATA, stream_id);
  PutLength(&out, length);
  return out;
}

std::string TcpWriteAck(uint32_t stream_id) {
  return BeginWithId(TYPE_TCP_WRITE_ACK, stream_id);
}

std::string UdpDatagram(uint8_t type, const HostAndPort& remote,
                        size_t length) {
  std::string out = Begin(type);
  PutEndpoint(&out, remote);
  PutLength(&out, length);
  return out;
}

std::string UdpDatagramV2(const HostAndPort& local, const HostAndPort& remote,
                          uint16_t uid, size_t length) {
  std::string out = Begin(TYPE_UDP_DATAGRAM_V2);
  PutEndpoint(&out, local);
  PutEndpoint(&out, remote);
  PutLe16(&out, uid);
  PutLength(&out, length);
  return out;
}

std::string UdpFailureV2(const HostAndPort& local, const HostAndPort& remote,
                         size_t length) {
  std::string out = Begin(TYPE_UDP_FAILURE_V2);
  PutEndpoint(&out, local);
  PutEndpoint(&out, remote);
  PutLength(&out, length);
  return out;
}

std::string PingEcho(uint32_t send_time_ms) {
  return BeginWithId(TYPE_PING_ECHO, send_time_ms);
}

std::string TransferRequest(uint8_t type, uint32_t request_id, uint32_t bytes) {
  std::string out = BeginWithId(type, request_id);
  PutBe32(&out, bytes);
  return out;
}

std::string TransferData(uint8_t type, uint32_t request_id, size_t length) {
  std::string out = BeginWithId(type, request_id);
  PutLength(&out, length);
  return out;
}

std::string PackageName(uint16_t uid, size_t length) {
  std::string out = Begin(TYPE_PACKAGE_NAME);
  PutBe16(&out, uid);
  PutLength(&out, length);
  return out;
}

std::string ActiveNetworkState(int32_t network_id, bool is_metered) {
  std::string out =
      BeginWithId(TYPE_ACTIVE_NETWORK_STATE, static_cast<uint32_t>(network_id));
  PutU8(&out, is_metered ? 1 : 0);
  return out;
}

std::string Handshake(uint8_t type, uint32_t version) {
  std::string out = BeginWithId(type, version);
  PutLength(&out, 0);
  return out;
}

uint32_t GetId(const char* m) { return GetBe32(m + 1); }
HostAndPort GetConnectRemote(const char* m) { return GetEndpoint(m + 5); }
uint16_t GetConnectUid(const char* m) { return GetBe16(m + 11); }
uint16_t GetConnectUidSwapped(const char* m) { return GetLe16(m + 11); }
uint32_t GetPingTime(const char* m) { return GetBe32(m + 1); }
uint32_t GetRequestedBytes(const char* m) { return GetBe32(m + 5); }
uint16_t GetPackageUid(const char* m) { return GetBe16(m + 1); }
int32_t GetNetworkId(const char* m) {
  return static_cast<int32_t>(GetBe32(m + 1));
}
bool GetIsMetered(const char* m) { return GetU8(m + 5) != 0; }
uint32_t GetVersion(const char* m) { return GetBe32(m + 1); }
HostAndPort GetDatagramRemote(const char* m) { return GetEndpoint(m + 1); }
HostAndPort GetDatagramV2Local(const char* m) { return GetEndpoint(m + 1); }
HostAndPort GetDatagramV2Remote(const char* m) { return GetEndpoint(m + 7); }

}  // namespace v1
}  // namespace vantrel
