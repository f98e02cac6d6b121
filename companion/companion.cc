#include "companion/companion.h"

#include <signal.h>

#include <utility>

#include "companion/companion_log.h"
#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "link/connection_header.h"

namespace vantrel {
namespace {

std::unique_ptr<LinkProtocol> MakeProtocol(const Options& options) {
  if (options.protocol == 20) {
    return std::make_unique<ProtocolV2>(options.build_info);
  }
  return std::make_unique<ProtocolV1>(options.protocol);
}

}  // namespace

Companion::Companion(Reactor& reactor, const Options& options)
    : reactor_(reactor),
      options_(options),
      relay_(reactor, options.dns_server),
      ticker_(reactor, WakeSource::OpenSecondsTimer(), [this] { OnTick(); }),
      hangup_(reactor, WakeSource::OpenSignal(SIGHUP),
              [this] { ReportNetwork(); }) {}

Companion::~Companion() = default;

bool Companion::Start() {
  if (options_.fd) {
    ServeLink(*options_.fd);
    return true;
  }
  listener_ = std::make_unique<LinkListener>(reactor_,
                                             [this](int fd) { ServeLink(fd); });
  if (!listener_->Open(*options_.listen)) return false;
  listener_->Accept();
  return true;
}

int Companion::Finish() {
  if (link_ != nullptr) link_->CloseNow("companion is shutting down");
  return failed_ ? 1 : 0;
}

void Companion::ServeLink(int fd) {
  Log("link connected");
  handshake_done_ = false;
  link_ =
      std::make_unique<DeviceLink>(reactor_, fd, MakeProtocol(options_), *this);
  relay_.AttachLink(link_.get());
  if (options_.send_header) {
    connection_header_t header;
    header.max_tx_size = options_.max_tx_size;
    link_->Send(EncodeConnectionHeader(header));
  }
  link_->Begin();
}

void Companion::OnLinkEvent(const LinkEvent& event) {
  switch (event.type) {
    case LinkEvent::Type::kReady:
      Log("link up: %s", ToPrintable(event.text).c_str());
      handshake_done_ = true;
      return ReportNetwork();
    case LinkEvent::Type::kNotice:
      return Log("%s", event.text.c_str());
    case LinkEvent::Type::kUnexpected:
      return Log("unexpected from the device: %s",
                 ToPrintable(event.text).c_str());
    default:
      return relay_.OnLinkEvent(event);
  }
}

void Companion::OnLinkRoom() { relay_.Pump(); }

void Companion::OnLinkEnded(bool by_error) {
  relay_.DetachLink();
  link_.reset();
  if (listener_ != nullptr) return listener_->Accept();
  failed_ = by_error;
  StopWhenDone();
}

void Companion::ReportNetwork() {
  if (!options_.network || link_ == nullptr || !handshake_done_) return;
  Log("reporting active network %d%s", options_.network->id,
      options_.network->is_metered ? " (metered)" : "");
  link_->Send(link_->GetProtocol().EncodeNetworkState(
      options_.network->id, options_.network->is_metered));
}

void Companion::OnTick() {
  relay_.OnTick();
  if (link_ != nullptr) link_->OnTick();
  if (link_ == nullptr && listener_ == nullptr) StopWhenDone();
}

void Companion::StopWhenDone() {
  if (relay_.IsIdle()) reactor_.Stop();
}

}  // namespace vantrel
