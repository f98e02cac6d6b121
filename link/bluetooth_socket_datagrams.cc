// The link over protocol 1: datagrams, in both forms.
#include <string>

#include "capture/uid_helper.h"
#include "common/byte_order.h"
#include "common/log.h"
#include "link/bluetooth_socket.h"

namespace vantrel {

void BluetoothSocket::SendDatagram(const HostAndPort& local,
                                   const HostAndPort& remote,
                                   const std::string& payload) {
  if (!output_.HasRoomForDatagram()) return;
  if ((flags_ & FLAG_UDP_V2) != 0) {
    SendDatagramV2(local, remote, payload);
  } else {
    SendDatagramV1(local, remote, payload);
  }
}

// This form names no application, so two that write to one remote share its
// conduit and answers go to the one that wrote last. A limit of the format,
// kept on purpose; the other form has it not.
void BluetoothSocket::SendDatagramV1(const HostAndPort& local,
                                     const HostAndPort& remote,
                                     const std::string& payload) {
  udp_v1_local_conduit_t* const known = udp_v1_conduits_.Find(remote);
  if (known != nullptr) {
    known->local = local;
  } else {
    const std::shared_ptr<UdpConduit> conduit =
        udp_v2_conduits_.MakeBound(remote);
    if (conduit == nullptr) return;
    udp_v1_conduits_.Insert(remote, {conduit, local});
  }
  const std::string header =
      v1::UdpDatagram(TYPE_UDP_DATAGRAM, remote, payload.size());
  AddToWriteBuffer(
      PacketBytes(header.data(), header.size(), payload,
                  UidHelper::FindOwnerUidForDatagram(local, remote)));
}

void BluetoothSocket::SendDatagramV2(const HostAndPort& local,
                                     const HostAndPort& remote,
                                     const std::string& payload) {
  if (!udp_v2_conduits_.Prepare(local, remote)) return;
  // The bytes are charged to the 16 bits that the message carries.
  const auto uid =
      static_cast<uint16_t>(UidHelper::FindOwnerUidForDatagram(local, remote));
  const std::string header =
      v1::UdpDatagramV2(local, remote, uid, payload.size());
  AddToWriteBuffer(PacketBytes(header.data(), header.size(), payload, uid));
}

uint32_t BluetoothSocket::HandleDatagramV1(const char* data, size_t size) {
  const HostAndPort remote = v1::GetDatagramRemote(data);
  const udp_v1_local_conduit_t* const known = udp_v1_conduits_.Find(remote);
  if (known == nullptr) return PacketBytes::kNobody;
  const size_t header = v1::GetHeaderSize(GetU8(data));
  const std::string payload(data + header, size - header);
  if (GetU8(data) == TYPE_UDP_FAILURE) {
    known->conduit->SendFailure(known->local, payload);
  } else {
    known->conduit->SendResponse(known->local, payload);
  }
  return UidHelper::FindOwnerUidForDatagram(known->local, remote);
}

uint32_t BluetoothSocket::HandleDatagramV2(const char* data, size_t size) {
  const HostAndPort local = v1::GetDatagramV2Local(data);
  const HostAndPort remote = v1::GetDatagramV2Remote(data);
  const bool failed = GetU8(data) == TYPE_UDP_FAILURE_V2;
  UdpConduit* const conduit =
      udp_v2_conduits_.FindForAnswer(local, remote, failed);
  if (conduit == nullptr) return PacketBytes::kNobody;
  const size_t header = v1::GetHeaderSize(GetU8(data));
  const std::string payload(data + header, size - header);
  if (failed) {
    conduit->SendFailure(local, payload);
  } else {
    conduit->SendResponse(local, payload);
  }
  return UidHelper::FindOwnerUidForDatagram(local, remote);
}

}  // namespace vantrel
