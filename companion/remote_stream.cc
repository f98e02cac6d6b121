#include "companion/remote_stream.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "support/socket_address.h"

namespace vantrel {
namespace {

void SetRemoteOption(int fd, int level, int name, int value) {
  static_cast<void>(setsockopt(fd, level, name, &value, sizeof(value)));
}

void TuneRemote(int fd) {
  SetRemoteOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  // The kernel waits 1, 2, 4, 8 and 16 seconds for an answer to the first SYN
  // and to its 4 repetitions: a silent remote fails after 31 seconds.
  SetRemoteOption(fd, IPPROTO_TCP, TCP_SYNCNT, 4);
  // A remote that vanished is noticed after 60 + 4 * 15 s.
  SetRemoteOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetRemoteOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  SetRemoteOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  SetRemoteOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
}

}  // namespace

RemoteStream::RemoteStream(const link_parts_t& link, Owner& owner,
                           ByteBudget& held, uint32_t id,
                           const HostAndPort& remote, Application& application)
    : link_(link),
      owner_(owner),
      held_(held),
      id_(id),
      remote_(remote),
      application_(application),
      membership_(application, GetSteadyTime()),
      edition_(link.destinations.GetEdition(remote)),
      place_(link.sockets),
      uploads_(link.uploads, application.GetUploads(Priority::kNormal), *this) {
}

RemoteStream::~RemoteStream() {
  link_.scheduler.Remove(this);
  DropQueued();
}

bool RemoteStream::Connect(const HostAndPort& target) {
  UniqueFd opened = OpenSocket(link_, target.host.GetFamily(), SOCK_STREAM);
  if (opened.Get() == -1) {
    LogConnectFailure(errno);
    return false;
  }
  socket_ = std::make_unique<Descriptor>(
      link_.loop, std::move(opened),
      [this] { link_.run([this] { OnReadable(); }); },
      [this] { link_.run([this] { OnWritable(); }); });
  const int fd = socket_->GetFd();
  TuneRemote(fd);
  if (ConnectTo(fd, target) == -1 && errno != EINPROGRESS) {
    LogConnectFailure(errno);
    return false;
  }
  socket_->WaitWritable();
  return true;
}

bool RemoteStream::CompleteConnect() {
  int error = 0;
  socklen_t length = sizeof(error);
  if (getsockopt(socket_->GetFd(), SOL_SOCKET, SO_ERROR, &error, &length) ==
      -1) {
    error = errno;
  }
  if (error != 0) {
    LogConnectFailure(error);
    return false;
  }
  // The address may have become the machine's own before it answered. When that
  // happens later, the kernel there knows no such connection and resets it.
  if (link_.destinations.GetEdition(remote_) != edition_ &&
      !link_.destinations.FindForStream(remote_)) {
    link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                    "stream %u: %s refused: not an allowed address any more",
                    id_, remote_.ToString().c_str());
    return false;
  }
  link_.log.Write(LogLevel::kDebug, LogKind::kStream, "stream %u: connected",
                  id_);
  is_connected_ = true;
  socket_->WaitReadable();
  return true;
}

void RemoteStream::LogConnectFailure(int error) {
  link_.destinations.OnFailed(remote_);
  link_.log.Write(LogLevel::kInfo, LogKind::kStream,
                  "stream %u: connect to %s failed: %s", id_,
                  remote_.ToString().c_str(), strerror(error));
}

void RemoteStream::SetPolicy(const flow_policy_t& policy) {
  if (is_finishing_) return;
  uploads_.SetGroup(&application_.GetUploads(policy.priority));
  uploads_.SetLimits(policy.limits_from_device, [this] {
    link_.run([this] {
      uploads_.OnGrant(GetSteadyTime());
      link_.on_waiting();
    });
  });
  uploads_.OnGrant(GetSteadyTime());
  priority_ = policy.priority;
  to_device_.Set(policy.limits_to_device, [this] {
    link_.run([this] {
      link_.scheduler.Resume(this, GetGroup());
      link_.on_waiting();
    });
  });
  quotas_ = policy.quotas;
  // It may have waited for a limit that it does not have any more.
  if (is_connected_) link_.scheduler.Resume(this, GetGroup());
}

void RemoteStream::OnAcknowledge(size_t count) {
  owner_.OnAcknowledge(*this, count);
}

bool RemoteStream::Write(std::string bytes) {
  if (uploads_.GetUnacknowledgedCount() >= kMaxUnacknowledgedWrites) {
    return false;
  }
  bytes_from_device_ += bytes.size();
  application_.GetCounts().bytes_from_device += bytes.size();
  AddToAll(quotas_, bytes.size());
  if (has_write_failed_) return true;
  uploads_.OnWrite(bytes.size(), GetSteadyTime());
  held_.Add(bytes.size());
  queue_.push_back(std::move(bytes));
  return true;
}

void RemoteStream::Flush() {
  if (!is_connected_) return;
  size_t delivered;
  if (!WriteQueued(&delivered)) return OnWriteFailure();
  if (!queue_.empty()) socket_->WaitWritable();
  if (delivered > 0) uploads_.OnDelivered(delivered, GetSteadyTime());
}

bool RemoteStream::WriteSome(size_t* count) {
  std::array<iovec, kMaxUnacknowledgedWrites> pieces;
  size_t used = 0;
  for (std::string& bytes : queue_) pieces[used++] = {&bytes[0], bytes.size()};
  pieces[0] = {&queue_.front()[front_offset_],
               queue_.front().size() - front_offset_};
  msghdr message = {};
  message.msg_iov = pieces.data();
  message.msg_iovlen = used;
  const ssize_t result =
      sendmsg(socket_->GetFd(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
  *count = result > 0 ? static_cast<size_t>(result) : 0;
  return result >= 0 || errno == EAGAIN || errno == EINTR;
}

bool RemoteStream::WriteQueued(size_t* count) {
  *count = 0;
  if (queue_.empty()) return true;
  size_t written;
  if (!WriteSome(&written)) return false;
  held_.Release(written);
  front_offset_ += written;
  while (*count < queue_.size() && front_offset_ >= queue_[*count].size()) {
    front_offset_ -= queue_[*count].size();
    ++*count;
  }
  queue_.erase(queue_.begin(), queue_.begin() + static_cast<ptrdiff_t>(*count));
  return true;
}

void RemoteStream::DropQueued() {
  held_.Add(front_offset_);  // what is released twice here
  for (const std::string& bytes : queue_) held_.Release(bytes.size());
  queue_.clear();
  front_offset_ = 0;
}

bool RemoteStream::TakeMessage(size_t max_payload, std::string* out) {
  // It is denied in a moment, or has its turn again by SetPolicy().
  if (IsAnyUsedUp(quotas_)) return false;
  if (!to_device_.MaySend()) return false;
  static std::string buffer;  // one for all: it is used up in here
  buffer.resize(to_device_.GetAllowance(
      std::min(max_payload, LinkProtocol::kMaxStreamChunkBytes)));
  const ssize_t count = read(socket_->GetFd(), buffer.data(), buffer.size());
  if (count > 0) {
    buffer.resize(static_cast<size_t>(count));
    link_.protocol.PutData(out, id_, buffer);
    to_device_.Charge(buffer.size());
    bytes_to_device_ += buffer.size();
    application_.GetCounts().bytes_to_device += buffer.size();
    AddToAll(quotas_, buffer.size());
    return true;
  }
  to_device_.Rest();
  if (count == -1 && (errno == EAGAIN || errno == EINTR)) {
    socket_->WaitReadable();
  } else if (count == 0) {
    has_remote_ended_ = true;
    owner_.OnRemoteEnded(*this);
  } else {
    link_.log.Write(LogLevel::kDebug, LogKind::kStream, "stream %u: %s", id_,
                    strerror(errno));
    owner_.OnStreamOver(*this);
  }
  return false;
}

void RemoteStream::Finish(int max_idle_ticks) {
  link_.scheduler.Remove(this);
  membership_.Close();
  to_device_.Clear();
  uploads_.Close();
  is_finishing_ = true;
  max_idle_ticks_ = max_idle_ticks;
  // The handlers do the rest, as soon as the socket lets them.
  socket_->WaitWritable();
  if (is_connected_ && !has_remote_ended_) socket_->WaitReadable();
}

void RemoteStream::OnReadable() {
  if (is_finishing_) return ReadAndDiscard();
  link_.scheduler.Activate(this, GetGroup());
  link_.on_waiting();
}

void RemoteStream::OnWritable() {
  if (!is_connected_ && !CompleteConnect()) return owner_.OnStreamOver(*this);
  const size_t held_before = held_.GetUsed();
  size_t delivered;
  if (!WriteQueued(&delivered)) return OnWriteFailure();
  if (held_.GetUsed() != held_before) idle_ticks_ = 0;
  if (delivered > 0 && !is_finishing_) {
    uploads_.OnDelivered(delivered, GetSteadyTime());
    link_.on_waiting();
  }
  if (!queue_.empty()) return socket_->WaitWritable();
  if (!is_finishing_) return;
  if (has_remote_ended_) return owner_.OnStreamOver(*this);
  static_cast<void>(shutdown(socket_->GetFd(), SHUT_WR));
}

// The remote takes no more, but bytes that it sent before may still wait to be
// read. So the stream goes on until reading ends, and what the device sends
// meanwhile is dropped without an acknowledgement.
void RemoteStream::OnWriteFailure() {
  if (is_finishing_) return owner_.OnStreamOver(*this);
  has_write_failed_ = true;
  DropQueued();
}

void RemoteStream::ReadAndDiscard() {
  char buffer[16384];
  const ssize_t count = read(socket_->GetFd(), buffer, sizeof(buffer));
  if (count > 0) discarded_bytes_ += static_cast<size_t>(count);
  const bool may_go_on =
      count > 0 || (count == -1 && (errno == EAGAIN || errno == EINTR));
  if (may_go_on && discarded_bytes_ <= kMaxDiscardedBytes) {
    return socket_->WaitReadable();
  }
  has_remote_ended_ = true;
  if (count < 0 || queue_.empty()) owner_.OnStreamOver(*this);
}

}  // namespace vantrel
