#include "companion/remote_stream.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

// The kernel waits 1, 2, 4, 8 and 16 seconds for an answer to the first SYN
// and to its 4 repetitions: a silent remote fails after 31 seconds.
constexpr int kSynRepetitions = 4;

}  // namespace

RemoteStream::RemoteStream(Reactor& reactor, Owner& owner, uint32_t id,
                           const HostAndPort& remote)
    : reactor_(reactor), owner_(owner), id_(id), remote_(remote) {}

RemoteStream::~RemoteStream() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
}

bool RemoteStream::Connect() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) {
    LogConnectFailure(errno);
    return false;
  }
  SetFd(fd);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(fd, IPPROTO_TCP, TCP_SYNCNT, &kSynRepetitions,
             sizeof(kSynRepetitions));
  const sockaddr_in address = remote_.GetSockAddrV4();
  const int result =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  if (result == -1 && errno != EINPROGRESS) {
    LogConnectFailure(errno);
    return false;
  }
  reactor_.Register(*this, Reactor::kWrite);
  return true;
}

bool RemoteStream::CompleteConnect() {
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(GetFd(), SOL_SOCKET, SO_ERROR, &error, &length) == -1) {
    error = errno;
  }
  if (error != 0) {
    LogConnectFailure(error);
    return false;
  }
  LogDetail("stream %u: connected", id_);
  connected_ = true;
  reactor_.Register(*this, Reactor::kRead);
  return true;
}

void RemoteStream::LogConnectFailure(int error) const {
  Log("stream %u: connect to %s failed: %s", id_, remote_.ToString().c_str(),
      strerror(error));
}

bool RemoteStream::Write(std::string bytes) {
  if (queue_.GetQueuedItemCount() >= kMaxUnacknowledgedWrites) return false;
  if (write_failed_) return true;
  queue_.Append(std::move(bytes));
  reactor_.Register(*this, Reactor::kWrite);
  return true;
}

void RemoteStream::WaitUntilReadable() {
  reactor_.Register(*this, Reactor::kRead);
}

void RemoteStream::Finish(int max_idle_ticks) {
  finishing_ = true;
  max_idle_ticks_ = max_idle_ticks;
  // The handlers do the rest, as soon as the socket lets them.
  reactor_.Register(*this, Reactor::kWrite);
  if (connected_ && !remote_ended_) reactor_.Register(*this, Reactor::kRead);
}

void RemoteStream::OnReadReady() {
  if (finishing_) return ReadAndDiscard();
  reactor_.Unregister(*this, Reactor::kRead);
  owner_.OnStreamReadable(*this);
}

void RemoteStream::OnWriteReady() {
  if (!connected_ && !CompleteConnect()) return owner_.OnStreamOver(*this);
  const size_t before = queue_.GetQueuedItemCount();
  if (!queue_.Drain(*this)) return HandleWriteFailure();
  const size_t delivered = before - queue_.GetQueuedItemCount();
  if (delivered > 0) idle_ticks_ = 0;
  if (delivered > 0 && !finishing_) owner_.OnWritesDelivered(*this, delivered);
  if (!queue_.IsEmpty()) return;
  reactor_.Unregister(*this, Reactor::kWrite);
  if (!finishing_) return;
  if (remote_ended_) return owner_.OnStreamOver(*this);
  static_cast<void>(shutdown(GetFd(), SHUT_WR));
}

// The remote takes no more, but bytes that it sent before may still wait to be
// read. So the stream goes on until reading ends, and what the device sends
// meanwhile is dropped without an acknowledgement.
void RemoteStream::HandleWriteFailure() {
  if (finishing_) return owner_.OnStreamOver(*this);
  write_failed_ = true;
  queue_ = WriteBuffer();
  reactor_.Unregister(*this, Reactor::kWrite);
}

void RemoteStream::ReadAndDiscard() {
  char buffer[16384];
  const int count = Read(buffer, sizeof(buffer));
  if (count > 0 || (count < 0 && errno == EAGAIN)) return;
  remote_ended_ = true;
  reactor_.Unregister(*this, Reactor::kRead);
  if (count < 0 || queue_.IsEmpty()) owner_.OnStreamOver(*this);
}

}  // namespace vantrel
