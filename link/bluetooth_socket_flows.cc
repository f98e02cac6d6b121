// The link over protocols 1 and 5: TCP streams, package names, and datagrams in
// both forms.
#include <string>

#include "capture/uid_helper.h"
#include "common/byte_order.h"
#include "link/bluetooth_socket.h"

namespace vantrel {
namespace {

// What follows the header of a whole message of |size| bytes.
std::string GetPayload(const char* message, size_t size) {
  const size_t header = v1::GetHeaderSize(GetU8(message));
  return std::string(message + header, size - header);
}

}  // namespace

void BluetoothSocket::RegisterTcpStream(TcpConduitDelegate* conduit) {
  if (!streams_.Add(conduit)) return;
  const uint32_t uid = conduit->GetUid();
  const std::string connect = v1::TcpConnect(
      conduit->GetId(), conduit->GetRemote(), static_cast<uint16_t>(uid));
  AddToWriteBuffer(PacketBytes(connect, uid));
  MaybeSendPackageName(*conduit, connect);
}

// The names are kept under the plain uid but looked up under the uid bytes as
// they stand in the connect message, read in the device's own order. So only a
// uid that reads the same either way is announced once; any other is announced
// with each of its streams. Kept for compatibility.
void BluetoothSocket::MaybeSendPackageName(const TcpConduitDelegate& conduit,
                                           const std::string& connect) {
  if (package_names_.count(v1::GetConnectUidSwapped(connect.data())) != 0) {
    return;
  }
  const uint32_t uid = conduit.GetUid();
  const std::string name = conduit.GetPackageName();
  AddToWriteBuffer(PacketBytes(
      v1::PackageName(static_cast<uint16_t>(uid), name.size()), name, uid));
  package_names_.emplace(uid, name);
}

void BluetoothSocket::OnTcpDataAvailable(uint32_t stream_id) {
  streams_.MarkReady(stream_id);
  reactor_.Register(*this, Reactor::kWrite);
}

bool BluetoothSocket::QueueStreamData() {
  const auto queue = [this](TcpConduitDelegate& conduit, std::string* chunk) {
    const uint32_t id = conduit.GetId();
    const uint32_t uid = conduit.GetUid();
    if (chunk == nullptr) {
      CloseTcpStream(id, uid);
      return;
    }
    AddToWriteBuffer(PacketBytes(v1::TcpData(id, chunk->size()), *chunk, uid));
  };
  do {
    if (output_.IsCongested()) return false;
  } while (streams_.TakeTurns(queue));
  return true;
}

void BluetoothSocket::CloseTcpStream(uint32_t stream_id, uint32_t uid) {
  if (!streams_.Close(stream_id)) return;
  AddToWriteBuffer(PacketBytes(v1::TcpClose(stream_id), uid));
}

uint32_t BluetoothSocket::HandleTcpClose(const char* data) {
  const uint32_t id = v1::GetId(data);
  const TcpConduitDelegate* const conduit = streams_.Find(id);
  if (conduit == nullptr) return PacketBytes::kNobody;
  const uint32_t uid = conduit->GetUid();
  static_cast<void>(streams_.Close(id));
  return uid;
}

uint32_t BluetoothSocket::HandleTcpData(const char* data, size_t size) {
  TcpConduitDelegate* const conduit = streams_.Find(v1::GetId(data));
  if (conduit == nullptr) return PacketBytes::kNobody;
  conduit->Write(GetPayload(data, size));
  return conduit->GetUid();
}

// Never charged to the stream's uid; kept for compatibility.
void BluetoothSocket::HandleTcpWriteAck(const char* data) {
  if (!streams_.Acknowledge(v1::GetId(data))) return;
  // The stream may have stopped for want of credit, with the link at rest.
  reactor_.Register(*this, Reactor::kWrite);
}

void BluetoothSocket::SendDatagram(const HostAndPort& local,
                                   const HostAndPort& remote,
                                   const std::string& payload) {
  if (!output_.HasRoomForDatagram(local, payload.size())) return;
  output_.QueueDatagram(local, [&] {
    if ((flags_ & FLAG_UDP_V2) != 0) {
      SendDatagramV2(local, remote, payload);
    } else {
      SendDatagramV1(local, remote, payload);
    }
  });
}

// This form names no application, so two that write to one remote share its
// conduit and answers go to the one that wrote last. The other form has no such
// limit.
void BluetoothSocket::SendDatagramV1(const HostAndPort& local,
                                     const HostAndPort& remote,
                                     const std::string& payload) {
  udp_v1_local_conduit_t* const known = udp_v1_conduits_.Find(remote);
  if (known != nullptr) {
    known->local = local;
  } else {
    const std::shared_ptr<UdpConduit> conduit = udp_conduits_.MakeBound(remote);
    if (conduit == nullptr) return;
    udp_v1_conduits_.Insert(remote, {conduit, local});
  }
  AddToWriteBuffer(
      PacketBytes(v1::UdpDatagram(TYPE_UDP_DATAGRAM, remote, payload.size()),
                  payload, UidHelper::FindOwnerUidForDatagram(local, remote)));
}

void BluetoothSocket::SendDatagramV2(const HostAndPort& local,
                                     const HostAndPort& remote,
                                     const std::string& payload) {
  if (!udp_conduits_.Prepare(local, remote)) return;
  // The bytes are charged to the 16 bits that the message carries.
  const auto uid =
      static_cast<uint16_t>(UidHelper::FindOwnerUidForDatagram(local, remote));
  AddToWriteBuffer(PacketBytes(
      v1::UdpDatagramV2(local, remote, uid, payload.size()), payload, uid));
}

uint32_t BluetoothSocket::HandleDatagramV1(const char* data, size_t size) {
  const HostAndPort remote = v1::GetDatagramRemote(data);
  const udp_v1_local_conduit_t* const known = udp_v1_conduits_.Find(remote);
  if (known == nullptr) return PacketBytes::kNobody;
  if (GetU8(data) == TYPE_UDP_FAILURE) {
    known->conduit->SendFailure(known->local, GetPayload(data, size));
  } else {
    known->conduit->SendResponse(known->local, GetPayload(data, size));
  }
  return UidHelper::FindOwnerUidForDatagram(known->local, remote);
}

uint32_t BluetoothSocket::HandleDatagramV2(const char* data, size_t size) {
  const HostAndPort local = v1::GetDatagramV2Local(data);
  const HostAndPort remote = v1::GetDatagramV2Remote(data);
  const bool is_failure = GetU8(data) == TYPE_UDP_FAILURE_V2;
  UdpConduit* const conduit =
      udp_conduits_.FindForAnswer(local, remote, is_failure);
  if (conduit == nullptr) return PacketBytes::kNobody;
  if (is_failure) {
    conduit->SendFailure(local, GetPayload(data, size));
  } else {
    conduit->SendResponse(local, GetPayload(data, size));
  }
  return UidHelper::FindOwnerUidForDatagram(local, remote);
}

}  // namespace vantrel
