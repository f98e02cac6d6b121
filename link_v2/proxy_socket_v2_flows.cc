// The link over protocol 2: TCP streams, datagrams and package names.
#include "common/log.h"
#include "link_v2/proxy_socket_v2.h"

namespace vantrel {
namespace {

void SetEndpoint(const HostAndPort& endpoint,
                 messages::IpAddressAndPort* message) {
  message->set_address(endpoint.host.ToNetworkBytes());
  message->set_port(endpoint.port);
}

HostAndPort GetEndpoint(const messages::IpAddressAndPort& message) {
  return HostAndPort(IpAddress::FromNetworkBytes(message.address()),
                     static_cast<uint16_t>(message.port()));
}

}  // namespace

void ProxySocketV2::RegisterTcpStream(TcpConduitDelegate* conduit) {
  if (!streams_.Add(conduit)) return;
  MessageEncoder message;
  messages::MessageTcpConnect* connect = message.SetAsTcpConnect();
  connect->set_stream_id(conduit->GetId());
  SetEndpoint(conduit->GetRemote(), connect->mutable_destination());
  connect->set_uid(conduit->GetUid());
  SendMessage(&message, "");
  MaybeSendPackageName(conduit->GetUid(), conduit->GetPackageName());
}

void ProxySocketV2::OnTcpDataAvailable() {
  reactor_.Register(*this, Reactor::kWrite);
}

bool ProxySocketV2::SendTcpData() {
  // Streams that were not asked may have something: the link must come back
  // for it although the socket takes the whole queue now.
  if (output_.IsCongested()) return true;
  bool produced = false;
  while (!output_.IsCongested() && SendTcpDataPass()) produced = true;
  return produced;
}

// Takes at most one chunk from each stream, so that busy streams share the
// link in turns. The queue may pass its limit by one frame per stream.
bool ProxySocketV2::SendTcpDataPass() {
  bool produced = false;
  for (auto next = streams_.begin(); next != streams_.end();) {
    // Step first: closing the stream erases its entry.
    TcpConduitDelegate* const conduit = (next++)->second;
    if (!conduit->HasBuffer()) continue;
    produced = true;
    std::string chunk;
    if (!conduit->GetNextBuffer(&chunk)) {
      CloseTcpStream(conduit->GetId());
      continue;
    }
    MessageEncoder message;
    message.SetAsTcpWrite()->set_stream_id(conduit->GetId());
    SendMessage(&message, chunk);
  }
  return produced;
}

void ProxySocketV2::CloseTcpStream(unsigned int stream_id) {
  TcpConduitDelegate* const conduit = streams_.Find(stream_id);
  if (conduit == nullptr) return;
  conduit->Close();
  streams_.Remove(stream_id);
  MessageEncoder message;
  message.SetAsTcpClose()->set_stream_id(stream_id);
  SendMessage(&message, "");
}

void ProxySocketV2::HandleTcpClose(const messages::MessageTcpClose& message) {
  TcpConduitDelegate* const conduit = streams_.Find(message.stream_id());
  if (conduit == nullptr) return;
  conduit->Close();
  streams_.Remove(message.stream_id());
}

void ProxySocketV2::HandleTcpWrite(const messages::MessageTcpWrite& message,
                                   const std::string& payload) {
  TcpConduitDelegate* const conduit = streams_.Find(message.stream_id());
  if (conduit != nullptr) conduit->Write(payload);
}

void ProxySocketV2::HandleTcpWriteAck(
    const messages::MessageTcpWriteAck& message) {
  TcpConduitDelegate* const conduit = streams_.Find(message.stream_id());
  if (conduit == nullptr) return;
  conduit->HandleWriteAck();
  // The stream may have stopped for want of credit, with the link at rest:
  // without this nothing would ever ask it for data again.
  reactor_.Register(*this, Reactor::kWrite);
}

void ProxySocketV2::SendDatagram(const HostAndPort& source,
                                 const HostAndPort& destination,
                                 const std::string& payload) {
  if (!output_.HasRoomForDatagram()) return;
  if (!udp_conduits_.Prepare(source, destination)) return;
  MessageEncoder message;
  messages::MessageUdpSend* send = message.SetAsUdpSend();
  SetEndpoint(source, send->mutable_source());
  SetEndpoint(destination, send->mutable_destination());
  SendMessage(&message, payload);
}

void ProxySocketV2::HandleUdpSend(const messages::MessageUdpSend& message,
                                  const std::string& payload) {
  const HostAndPort local = GetEndpoint(message.source());
  const HostAndPort remote = GetEndpoint(message.destination());
  UdpConduit* const conduit = udp_conduits_.FindForAnswer(local, remote, false);
  if (conduit != nullptr) conduit->SendResponse(local, payload);
}

void ProxySocketV2::HandleUdpFailure(const messages::MessageUdpFailure& message,
                                     const std::string& payload) {
  const HostAndPort local = GetEndpoint(message.source());
  const HostAndPort remote = GetEndpoint(message.destination());
  UdpConduit* const conduit = udp_conduits_.FindForAnswer(local, remote, true);
  if (conduit != nullptr) conduit->SendFailure(local, payload);
}

void ProxySocketV2::MaybeSendPackageName(unsigned int uid,
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
