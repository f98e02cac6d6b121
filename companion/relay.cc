#include "companion/relay.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

constexpr uint32_t kMaxPackageNames = 1024;

}  // namespace

Relay::Relay(Reactor& reactor, std::optional<HostAndPort> dns_server)
    : reactor_(reactor), flows_(reactor, *this, std::move(dns_server)) {}

void Relay::AttachLink(DeviceLink* link) {
  link_ = link;
  package_names_ =
      std::make_unique<LruCache<uint32_t, std::string>>(kMaxPackageNames);
}

void Relay::DetachLink() {
  link_ = nullptr;
  while (!streams_.empty()) {
    FinishStream(streams_.begin()->second.get(), kFinishSecondsWithoutLink);
  }
  flows_.Clear();
}

void Relay::OnLinkEvent(const LinkEvent& event) {
  switch (event.type) {
    case LinkEvent::Type::kConnect:
      return HandleConnect(event);
    case LinkEvent::Type::kData:
      return HandleData(event);
    case LinkEvent::Type::kClose:
      return HandleClose(event);
    case LinkEvent::Type::kDatagram:
      return HandleDatagram(event);
    case LinkEvent::Type::kPackageName:
      return HandlePackageName(event);
    default:
      return;
  }
}

void Relay::HandleConnect(const LinkEvent& event) {
  const uint32_t id = event.stream_id;
  if (FindStream(id) != nullptr) {
    return Log("stream %u: announced twice, ignored", id);
  }
  Log("stream %u: connect to %s (%s)", id, event.remote.ToString().c_str(),
      DescribeOwner(event.uid).c_str());
  if (event.remote.host.GetFamily() != AF_INET) {
    Log("stream %u: closed: not an IPv4 address", id);
    return link_->Send(link_->GetProtocol().EncodeClose(id));
  }
  if (streams_.size() + finishing_.size() >= kMaxStreams) {
    Log("stream %u: closed: too many streams", id);
    return link_->Send(link_->GetProtocol().EncodeClose(id));
  }
  auto stream =
      std::make_unique<RemoteStream>(reactor_, *this, id, event.remote);
  if (!stream->Connect()) {
    return link_->Send(link_->GetProtocol().EncodeClose(id));
  }
  streams_.emplace(id, std::move(stream));
}

void Relay::HandleData(const LinkEvent& event) {
  RemoteStream* stream = FindStream(event.stream_id);
  if (stream == nullptr) {
    return LogDetail("stream %u: data for no such stream", event.stream_id);
  }
  if (stream->Write(event.bytes)) return;
  Log("stream %u: closed: the device sent more than its credit allows",
      event.stream_id);
  DropStream(stream);
}

void Relay::HandleClose(const LinkEvent& event) {
  RemoteStream* stream = FindStream(event.stream_id);
  if (stream == nullptr) {
    return LogDetail("stream %u: close of no such stream", event.stream_id);
  }
  LogDetail("stream %u: closed by the device", event.stream_id);
  FinishStream(stream, kFinishSeconds);
}

void Relay::HandleDatagram(const LinkEvent& event) {
  if (event.remote.host.GetFamily() != AF_INET) {
    return Log("datagram dropped: not for an IPv4 address");
  }
  LogDetail("datagram %s -> %s: %zu bytes", event.local.ToString().c_str(),
            event.remote.ToString().c_str(), event.bytes.size());
  flows_.Send(event.local, event.remote, event.bytes);
}

void Relay::HandlePackageName(const LinkEvent& event) {
  // Some devices repeat the name with every stream.
  const std::string* known = package_names_->Find(event.uid);
  if (event.text.empty() || (known != nullptr && *known == event.text)) return;
  package_names_->Insert(event.uid, event.text);
  Log("uid %u is %s", event.uid, ToPrintable(event.text).c_str());
}

std::string Relay::DescribeOwner(uint32_t uid) {
  if (uid == LinkEvent::kUnknownUid) return "uid unknown";
  const std::string* name = package_names_->Find(uid);
  const std::string suffix = name == nullptr ? "" : ", " + ToPrintable(*name);
  return "uid " + std::to_string(uid) + suffix;
}

RemoteStream* Relay::FindStream(uint32_t id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second.get();
}

void Relay::Pump() {
  while (link_->HasRoom()) {
    const bool sent_bulk = link_->SendNextBulk();
    if (turns_.empty() && !sent_bulk) break;
    if (turns_.empty()) continue;
    RemoteStream* stream = turns_.front();
    turns_.pop_front();
    ForwardFrom(stream);
  }
  if (!link_->IsFull()) flows_.Resume();
}

void Relay::ForwardFrom(RemoteStream* stream) {
  std::string bytes(LinkProtocol::kMaxStreamChunkBytes, '\0');
  const int count = stream->Read(&bytes[0], bytes.size());
  if (count > 0) {
    bytes.resize(static_cast<size_t>(count));
    link_->Send(link_->GetProtocol().EncodeData(stream->GetId(), bytes));
    turns_.push_back(stream);
    return;
  }
  if (count == 0) {
    LogDetail("stream %u: closed by the remote", stream->GetId());
    stream->SetRemoteEnded();
    link_->Send(link_->GetProtocol().EncodeClose(stream->GetId()));
    return FinishStream(stream, kFinishSeconds);
  }
  if (errno == EAGAIN) return stream->WaitUntilReadable();
  LogDetail("stream %u: %s", stream->GetId(), strerror(errno));
  DropStream(stream);
}

void Relay::FinishStream(RemoteStream* stream, int max_idle_ticks) {
  LeaveTurn(stream);
  const auto found = streams_.find(stream->GetId());
  finishing_.push_back(std::move(found->second));
  streams_.erase(found);
  stream->Finish(max_idle_ticks);
}

void Relay::DropStream(RemoteStream* stream) {
  LeaveTurn(stream);
  const uint32_t id = stream->GetId();
  streams_.erase(id);
  link_->Send(link_->GetProtocol().EncodeClose(id));
}

void Relay::LeaveTurn(RemoteStream* stream) {
  turns_.erase(std::remove(turns_.begin(), turns_.end(), stream), turns_.end());
}

void Relay::OnStreamReadable(RemoteStream& stream) {
  turns_.push_back(&stream);
  Pump();
}

void Relay::OnWritesDelivered(RemoteStream& stream, size_t count) {
  LogDetail("stream %u: %zu writes delivered", stream.GetId(), count);
  for (size_t i = 0; i < count; ++i) {
    link_->Send(link_->GetProtocol().EncodeWriteAck(stream.GetId()));
  }
}

void Relay::OnStreamOver(RemoteStream& stream) {
  if (!stream.IsFinishing()) return DropStream(&stream);
  finishing_.remove_if([&stream](const std::unique_ptr<RemoteStream>& entry) {
    return entry.get() == &stream;
  });
}

void Relay::OnTick() {
  finishing_.remove_if([](const std::unique_ptr<RemoteStream>& stream) {
    return stream->OnTick();
  });
  flows_.OnTick();
}

bool Relay::HasRoomForAnswer() const {
  return link_ != nullptr && !link_->IsFull();
}

void Relay::OnAnswer(const HostAndPort& local, const HostAndPort& remote,
                     const std::string& payload) {
  const LinkProtocol& protocol = link_->GetProtocol();
  if (payload.size() > protocol.GetMaxDatagramBytes()) {
    return Log("datagram of %zu bytes from %s dropped: too large for the link",
               payload.size(), remote.ToString().c_str());
  }
  link_->Send(protocol.EncodeDatagram(local, remote, payload));
}

void Relay::OnFailure(const HostAndPort& local, const HostAndPort& remote,
                      const std::string& request) {
  link_->Send(link_->GetProtocol().EncodeUdpFailure(local, remote, request));
}

}  // namespace vantrel
