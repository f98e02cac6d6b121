// The link over protocol 20: TCP streams, datagrams and package names.
#include <utility>

#include "common/log.h"
#include "link_v2/proxy_socket_v2.h"

namespace vantrel {

void ProxySocketV2::RegisterTcpStream(TcpConduitDelegate* conduit) {
  if (!streams_.Add(conduit)) return;
  MessageEncoder message;
  messages::MessageTcpConnect* connect = message.SetAsTcpConnect();
  connect->set_stream_id(conduit->GetId());
  EncodeEndpoint(conduit->GetRemote(), connect->mutable_destination());
  connect->set_uid(conduit->GetUid());
  SendMessage(&message, "");
  MaybeSendPackageName(conduit->GetUid(), conduit->GetPackageName());
}

void ProxySocketV2::OnTcpDataAvailable(uint32_t stream_id) {
  streams_.MarkReady(stream_id);
  reactor_.Register(*this, Reactor::kWrite);
}

bool ProxySocketV2::SendTcpData() {
  // Streams that were not asked may have something: the link must come back
  // for it although the socket takes the whole queue now.
  if (output_.IsCongested()) return true;
  const auto send = [this](TcpConduitDelegate& conduit, std::string* chunk) {
    const uint32_t id = conduit.GetId();
    if (chunk == nullptr) {
      CloseTcpStream(id);
      return;
    }
    MessageEncoder message;
    message.SetAsTcpWrite()->set_stream_id(id);
    SendMessage(&message, *chunk);
  };
  // A pass is finished once begun: the queue may pass its limit by one frame
  // per stream.
  bool produced = false;
  while (!output_.IsCongested() && streams_.TakeTurns(send)) produced = true;
  return produced;
}

void ProxySocketV2::CloseTcpStream(uint32_t stream_id) {
  if (!streams_.Close(stream_id)) return;
  MessageEncoder message;
  message.SetAsTcpClose()->set_stream_id(stream_id);
  SendMessage(&message, "");
}

void ProxySocketV2::HandleTcpClose(const messages::MessageTcpClose& message) {
  static_cast<void>(streams_.Close(message.stream_id()));
}

void ProxySocketV2::HandleTcpWrite(const messages::MessageTcpWrite& message,
                                   std::string payload) {
  TcpConduitDelegate* const conduit = streams_.Find(message.stream_id());
  if (conduit != nullptr) conduit->Write(std::move(payload));
}

void ProxySocketV2::HandleTcpWriteAck(
    const messages::MessageTcpWriteAck& message) {
  if (!streams_.Acknowledge(message.stream_id())) return;
  // The stream may have stopped for want of credit, with the link at rest:
  // without this nothing would ever ask it for data again.
  reactor_.Register(*this, Reactor::kWrite);
}

void ProxySocketV2::SendDatagram(const HostAndPort& source,
                                 const HostAndPort& destination,
                                 const std::string& payload) {
  if (!output_.HasRoomForDatagram(source, payload.size())) return;
  if (!udp_conduits_.Prepare(source, destination)) return;
  MessageEncoder message;
  messages::MessageUdpSend* send = message.SetAsUdpSend();
  EncodeEndpoint(source, send->mutable_source());
  EncodeEndpoint(destination, send->mutable_destination());
  output_.QueueDatagram(source, [&] { SendMessage(&message, payload); });
}

void ProxySocketV2::HandleUdpSend(const messages::MessageUdpSend& message,
                                  const std::string& payload) {
  const HostAndPort local = DecodeEndpoint(message.source());
  const HostAndPort remote = DecodeEndpoint(message.destination());
  UdpConduit* const conduit = udp_conduits_.FindForAnswer(local, remote, false);
  if (conduit != nullptr) conduit->SendResponse(local, payload);
}

void ProxySocketV2::HandleUdpFailure(const messages::MessageUdpFailure& message,
                                     const std::string& payload) {
  const HostAndPort local = DecodeEndpoint(message.source());
  const HostAndPort remote = DecodeEndpoint(message.destination());
  UdpConduit* const conduit = udp_conduits_.FindForAnswer(local, remote, true);
  if (conduit != nullptr) conduit->SendFailure(local, payload);
}

void ProxySocketV2::MaybeSendPackageName(uint32_t uid,
                                         const std::string& package_name) {
  const std::string* const sent = package_names_.Find(uid);
  if (sent != nullptr && *sent == package_name) return;
  package_names_.Insert(uid, package_name);
  MessageEncoder message;
  messages::UidAndPackageName* entry =
      message.SetAsMessagePackageNames()->add_entries();
  entry->set_uid(uid);
  entry->set_package_name(package_name);
  SendMessage(&message, "");
}

}  // namespace vantrel
