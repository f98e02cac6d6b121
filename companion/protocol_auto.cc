#include "companion/protocol_auto.h"

#include <string.h>

#include <utility>

#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"

namespace vantrel {

ProtocolAuto::ProtocolAuto(std::string build_info, std::string* control)
    : LinkProtocol(LinkOpening::kAnyProtocol, control),
      build_info_(std::move(build_info)) {}

const LinkOpening& ProtocolAuto::GetOpening() const {
  return chosen_ ? chosen_->GetOpening() : LinkProtocol::GetOpening();
}

LinkProtocol::room_t ProtocolAuto::MakeRoom() {
  if (chosen_) return chosen_->GetRoom();
  return {buffer_.data() + received_, buffer_.size() - received_};
}

void ProtocolAuto::OnReceived(size_t count) {
  if (chosen_) return chosen_->OnFilled(count);
  received_ += count;
  const int protocol = LinkProtocol::GetOpening().GetProtocol();
  if (protocol != LinkOpening::kAnyProtocol) Choose(protocol);
}

void ProtocolAuto::Choose(int protocol) {
  if (protocol == 20) {
    chosen_ = std::make_unique<ProtocolV2>(build_info_, GetControl());
  } else {
    chosen_ = std::make_unique<ProtocolV1>(protocol, GetControl());
  }
  memcpy(chosen_->GetRoom().begin, buffer_.data(), received_);
  chosen_->OnFilled(received_);
}

bool ProtocolAuto::HandleNext(DeviceMessages& device) {
  if (chosen_) return chosen_->HandleNext(device);
  const std::string& fault = LinkProtocol::GetOpening().GetFault();
  if (!fault.empty() && !std::exchange(has_failed_, true)) {
    device.OnFailure(fault);
  }
  return false;
}

size_t ProtocolAuto::GetMaxDatagramBytes() const {
  return chosen_->GetMaxDatagramBytes();
}

void ProtocolAuto::PutData(std::string* out, uint32_t stream_id,
                           const std::string& bytes) {
  chosen_->PutData(out, stream_id, bytes);
}

void ProtocolAuto::PutClose(std::string* out, uint32_t stream_id) {
  chosen_->PutClose(out, stream_id);
}

void ProtocolAuto::PutWriteAck(std::string* out, uint32_t stream_id) {
  chosen_->PutWriteAck(out, stream_id);
}

void ProtocolAuto::PutDatagram(std::string* out, const HostAndPort& local,
                               const HostAndPort& remote,
                               const std::string& payload) {
  chosen_->PutDatagram(out, local, remote, payload);
}

void ProtocolAuto::PutUdpFailure(std::string* out, const HostAndPort& local,
                                 const HostAndPort& remote,
                                 const std::string& request) {
  chosen_->PutUdpFailure(out, local, remote, request);
}

void ProtocolAuto::PutNetworkState(std::string* out, int32_t network_id,
                                   bool is_metered) {
  chosen_->PutNetworkState(out, network_id, is_metered);
}

void ProtocolAuto::PutTeardown(std::string* out, const std::string& reason) {
  if (chosen_) chosen_->PutTeardown(out, reason);
}

}  // namespace vantrel
