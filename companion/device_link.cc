#include "companion/device_link.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

constexpr size_t kMaxReadBytes = 16384;

// Each of these makes the link better and none is needed, so a refusal (most
// are refused where the link is not TCP) is no failure.
void TuneLink(int fd) {
  const auto set = [fd](int level, int name, int value) {
    static_cast<void>(setsockopt(fd, level, name, &value, sizeof(value)));
  };
  // A long queue in the kernel would be one that the bounds do not see, and a
  // person on a slow link would wait behind both.
  set(SOL_SOCKET, SO_SNDBUF, 16 * 1024);
  set(IPPROTO_TCP, TCP_NODELAY, 1);
  // A device that vanished must not keep the next one waiting for ever.
  set(SOL_SOCKET, SO_KEEPALIVE, 1);
  set(IPPROTO_TCP, TCP_KEEPIDLE, 20);
  set(IPPROTO_TCP, TCP_KEEPINTVL, 5);
  set(IPPROTO_TCP, TCP_KEEPCNT, 4);
}

}  // namespace

DeviceLink::DeviceLink(Reactor& reactor, int fd,
                       std::unique_ptr<LinkProtocol> protocol,
                       Delegate& delegate)
    : Socket(fd),
      reactor_(reactor),
      protocol_(std::move(protocol)),
      delegate_(delegate) {
  TuneLink(fd);
  reactor_.Register(*this, Reactor::kRead);
}

DeviceLink::~DeviceLink() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
}

void DeviceLink::OnReadReady() {
  if (closing_) return ReadAndDiscard();
  char buffer[kMaxReadBytes];
  const int count =
      Read(buffer, std::min(sizeof(buffer), protocol_->GetAvailableSpace()));
  if (count == 0) return End(false, "closed by the device");
  if (count < 0) {
    if (errno == EAGAIN) return;
    // A device that leaves with bytes of ours unread resets the link.
    if (errno == ECONNRESET) return End(false, "closed by the device");
    return End(true, strerror(errno));
  }
  protocol_->Feed(buffer, static_cast<size_t>(count));
  DispatchEvents();
  if (!closing_) delegate_.OnLinkRoom();
  UpdateReading();
}

void DeviceLink::DispatchEvents() {
  LinkEvent event;
  while (!closing_ && protocol_->GetNextEvent(&event)) DispatchEvent(event);
}

void DeviceLink::DispatchEvent(const LinkEvent& event) {
  switch (event.type) {
    case LinkEvent::Type::kReply:
      return Send(event.bytes);
    case LinkEvent::Type::kFatal:
      return Close(event.text, event.bytes);
    default:
      return delegate_.OnLinkEvent(event);
  }
}

void DeviceLink::ReadAndDiscard() {
  char buffer[kMaxReadBytes];
  const int count = Read(buffer, sizeof(buffer));
  if (count > 0 || (count < 0 && errno == EAGAIN)) return;
  End(true, "closed by the companion");
}

void DeviceLink::OnWriteReady() {
  // What else could be wrong with a socket that was writable: nobody reads it
  // any more.
  if (!queue_.Drain(*this)) return End(closing_, "closed by the device");
  if (queue_.IsEmpty()) {
    reactor_.Unregister(*this, Reactor::kWrite);
    if (closing_) FinishWriting();
  }
  UpdateReading();
  if (!closing_) delegate_.OnLinkRoom();
}

void DeviceLink::OnTick() {
  if (closing_ && ++closing_seconds_ >= kCloseSeconds)
    End(true, "closed by the companion");
}

void DeviceLink::Send(std::string message) {
  if (closing_ || message.empty()) return;
  queue_.Append(std::move(message));
  reactor_.Register(*this, Reactor::kWrite);
}

bool DeviceLink::SendNextBulk() {
  std::string message;
  if (!protocol_->GetNextBulk(&message)) return false;
  Send(std::move(message));
  return true;
}

bool DeviceLink::HasRoom() const {
  return !closing_ && queue_.GetQueuedByteCount() < kRoomBytes;
}

bool DeviceLink::IsFull() const {
  return queue_.GetQueuedByteCount() >= kFullBytes;
}

void DeviceLink::UpdateReading() {
  if (IsFull() && !closing_) {
    reactor_.Unregister(*this, Reactor::kRead);
  } else {
    reactor_.Register(*this, Reactor::kRead);
  }
}

void DeviceLink::Close(const std::string& reason, const std::string& farewell) {
  if (closing_) return;
  Log("closing the link: %s", ToPrintable(reason).c_str());
  Send(farewell);
  closing_ = true;
  if (queue_.IsEmpty()) FinishWriting();
}

void DeviceLink::CloseNow(const std::string& reason) {
  Close(reason, protocol_->EncodeTeardown(reason));
  pollfd writable = {GetFd(), POLLOUT, 0};
  while (queue_.Drain(*this) && !queue_.IsEmpty()) {
    if (poll(&writable, 1, 1000) <= 0) return;
  }
}

void DeviceLink::FinishWriting() {
  static_cast<void>(shutdown(GetFd(), SHUT_WR));
}

void DeviceLink::End(bool by_error, const char* why) {
  Log("link down: %s", why);
  delegate_.OnLinkEnded(by_error);
}

}  // namespace vantrel
