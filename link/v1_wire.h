// The wire format of link protocols 1 and 5, for both ends of the link: an
// unbroken sequence of messages, each a type byte, the type's fixed header and,
// for some types, a payload whose length the header states. Nothing else marks
// where a message ends, so both ends must know every layout.
//
// All integers are big-endian, but for the uid of TYPE_UDP_DATAGRAM_V2, which
// is little-endian; kept for compatibility. Addresses are IPv4. A uid is the
// low 16 bits of the Linux uid. Offsets count from the type byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// D>C: only the daemon sends it; C>D: only the companion; else both do.
enum MessageTypeV1 : uint8_t {
  // D>C 1: stream u32, 5: remote address, 9: remote port u16, 11: uid u16
  TYPE_TCP_CONNECT = 1,
  // 1: stream u32
  TYPE_TCP_CLOSE = 2,
  // 1: stream u32, 5: length u16, 7: bytes
  TYPE_TCP_DATA = 3,
  // 1: remote address, 5: remote port u16, 7: length u16, 9: datagram
  TYPE_UDP_DATAGRAM = 4,
  // 1: send time u32 (ms); the companion sends it back unchanged
  TYPE_PING_ECHO = 5,
  // C>D 1: stream u32; one TYPE_TCP_DATA of that stream was consumed
  TYPE_TCP_WRITE_ACK = 6,
  // C>D as TYPE_UDP_DATAGRAM; the datagram could not be delivered
  TYPE_UDP_FAILURE = 7,
  // D>C 1: request u32, 5: number of bytes u32
  TYPE_PULL_REQUEST = 8,
  // C>D 1: request u32, 5: length u16, 7: filler
  TYPE_PULL_DATA = 9,
  // D>C 1: uid u16, 3: length u16, 5: package name
  TYPE_PACKAGE_NAME = 10,
  // C>D 1: network id i32, 5: is metered u8
  TYPE_ACTIVE_NETWORK_STATE = 11,
  // D>C 1: request u32, 5: number of bytes u32
  TYPE_PUSH_REQUEST = 12,
  // D>C 1: request u32, 5: length u16, 7: filler
  TYPE_PUSH_DATA = 13,
  // 1: local address, 5: local port u16, 7: remote address, 11: remote port
  // u16, 13: uid u16 LITTLE-ENDIAN (not read from the companion), 15: length
  // u16, 17: datagram
  TYPE_UDP_DATAGRAM_V2 = 14,
  // C>D 1: local address, 5: local port u16, 7: remote address, 11: remote
  // port u16, 13: length u16, 15: datagram; there is no uid
  TYPE_UDP_FAILURE_V2 = 15,
  // D>C 1: version u32, 5: length u16, always 0
  TYPE_HANDSHAKE = 16,
  // C>D 1: version u32, 5: length u16, 7: payload, skipped
  TYPE_HANDSHAKE_ACK = 17,
  // D>C 1: version u32 as acknowledged, 5: length u16, always 0
  TYPE_HANDSHAKE_DONE = 18,
};

namespace v1 {

constexpr size_t kMaxPayloadBytes = 65535;
constexpr size_t kMaxMessageBytes = 17 + kMaxPayloadBytes;

// The version that TYPE_HANDSHAKE offers and TYPE_HANDSHAKE_ACK must repeat.
constexpr uint32_t kHandshakeVersion = 5;

// Who sends messages of |type|; neither for a type that does not exist.
bool IsFromDaemon(uint8_t type);
bool IsFromCompanion(uint8_t type);

// Bytes before the payload; 0 for a type that does not exist.
size_t GetHeaderSize(uint8_t type);

// The whole size of the message that begins at |data|, with |available| bytes
// there; 0 while its header is not complete or its type does not exist.
size_t GetMessageSize(const char* data, size_t available);

// Builders. Where a message has a payload they make what goes before
// |length| bytes of it.
std::string TcpConnect(uint32_t stream_id, const HostAndPort& remote,
                       uint16_t uid);
std::string TcpClose(uint32_t stream_id);
std::string TcpData(uint32_t stream_id, size_t length);
std::string TcpWriteAck(uint32_t stream_id);
// |type| is TYPE_UDP_DATAGRAM or TYPE_UDP_FAILURE.
std::string UdpDatagram(uint8_t type, const HostAndPort& remote, size_t length);
std::string UdpDatagramV2(const HostAndPort& local, const HostAndPort& remote,
                          uint16_t uid, size_t length);
std::string UdpFailureV2(const HostAndPort& local, const HostAndPort& remote,
                         size_t length);
std::string PingEcho(uint32_t send_time_ms);
// |type| is TYPE_PULL_REQUEST or TYPE_PUSH_REQUEST.
std::string TransferRequest(uint8_t type, uint32_t request_id, uint32_t bytes);
// |type| is TYPE_PULL_DATA or TYPE_PUSH_DATA.
std::string TransferData(uint8_t type, uint32_t request_id, size_t length);
std::string PackageName(uint16_t uid, size_t length);
std::string ActiveNetworkState(int32_t network_id, bool is_metered);
// |type| is TYPE_HANDSHAKE, TYPE_HANDSHAKE_ACK or TYPE_HANDSHAKE_DONE.
std::string Handshake(uint8_t type, uint32_t version);

// Readers. |m| is the start of a message whose header is complete and of a type
// that has the field.
uint32_t GetId(const char* m);  // stream or request
HostAndPort GetConnectRemote(const char* m);
uint16_t GetConnectUid(const char* m);
// The uid's two bytes read in the wrong order (little-endian).
uint16_t GetConnectUidSwapped(const char* m);
uint32_t GetPingTime(const char* m);
uint32_t GetRequestedBytes(const char* m);
uint16_t GetPackageUid(const char* m);
int32_t GetNetworkId(const char* m);
bool GetIsMetered(const char* m);
uint32_t GetVersion(const char* m);
HostAndPort GetDatagramRemote(const char* m);    // types 4 and 7
HostAndPort GetDatagramV2Local(const char* m);   // types 14 and 15
HostAndPort GetDatagramV2Remote(const char* m);  // types 14 and 15

}  // namespace v1
}  // namespace vantrel
