#include "capture/tcp_conduit.h"

#include <arpa/inet.h>
#include <assert.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "capture/original_destination.h"
#include "capture/uid_helper.h"
#include "common/interception.h"
#include "common/log.h"
#include "common/log_texts.h"

namespace vantrel {
namespace {

constexpr size_t kChunkBytes = 4096;
constexpr size_t kMaxQueuedChunks = 4;
constexpr uint32_t kInitialCredit = 8;  // chunks

uint64_t GetSocketCookie(int fd, uint32_t id) {
  uint64_t cookie = 0;
  socklen_t length = sizeof(cookie);
  if (getsockopt(fd, SOL_SOCKET, SO_COOKIE, &cookie, &length) == -1) {
    LOGW("[T:%u] Unable to get socket cookie.", id);
  }
  return cookie;
}

// Every piece goes to the application at once. Otherwise the kernel keeps a
// small one back until the application's kernel has acknowledged those before,
// which that delays, too: up to 44 ms for each answer of several pieces. A
// refusal costs only that time.
void SendAtOnce(int fd) {
  const int on = 1;
  static_cast<void>(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)));
}

}  // namespace

TcpConduit::TcpConduit(Reactor& reactor, ProxySocket& link, int fd, uint32_t id,
                       OpenConduits& open_conduits)
    : Socket(fd),
      id_(id),
      reactor_(reactor),
      link_(link),
      open_conduits_(open_conduits),
      send_credit_(kInitialCredit) {
  open_conduits_.Add(this);
  if (!GetOriginalDestination(fd, &remote_)) {
    LOGE("[T:%u] Unable to get original destination: %s", id_, strerror(errno));
    // Nothing is registered yet, so this closes the connection and leaves
    // nothing behind.
    delete this;
    return;
  }
  FindOwner();
  SendAtOnce(fd);
  reactor_.Register(*this, Reactor::kRead);
  link_.RegisterTcpStream(this);
}

TcpConduit::~TcpConduit() {
  open_conduits_.Remove(this);
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
  LOGD("[T:%u] Closed stream. RX/TX: %zu/%zu", id_,
       static_cast<size_t>(rx_bytes_),
       write_buffer_.GetTotalWrittenByteCount());
}

bool TcpConduit::IsFromApplicationAddress() const {
  sockaddr_in peer = {};
  socklen_t length = sizeof(peer);
  return getpeername(GetFd(), reinterpret_cast<sockaddr*>(&peer), &length) ==
             0 &&
         peer.sin_family == AF_INET &&
         peer.sin_addr.s_addr == htonl(kApplicationAddress);
}

void TcpConduit::FindOwner() {
  uid_ = IsFromApplicationAddress()
             ? UidHelper::FindOwnerUidForTcpSocket(GetFd())
             : UidHelper::kUidNotFound;
  package_name_ = UidHelper::FindOwnerPackageName(uid_);
  const uint64_t cookie = GetSocketCookie(GetFd(), id_);
  if (uid_ == UidHelper::kUidNotFound) {
    LOGW("[T:%u] Unable to find UID for socket.", id_);
  }
  // The closing parenthesis is missing; kept for compatibility.
  LOGD(VANTREL_TEXT_STREAM
       "%u" VANTREL_TEXT_STREAM_OPENED "%s" VANTREL_TEXT_STREAM_UID
       "%llu" VANTREL_TEXT_STREAM_PACKAGE "%s) (cookie=%llu",
       id_, remote_.ToString().c_str(), static_cast<unsigned long long>(uid_),
       package_name_.c_str(), static_cast<unsigned long long>(cookie));
}

void TcpConduit::OnReadReady() {
  // The link may have closed the stream in this very pass of the loop, after
  // the application's socket was found to be readable. Nobody wants its bytes
  // any more, and its end must not take away the registration for writing.
  if (close_pending_) return;
  // One read for all the chunks that there is room for.
  char bytes[kMaxQueuedChunks * kChunkBytes];
  while (read_queue_.size() < kMaxQueuedChunks) {
    const size_t room = (kMaxQueuedChunks - read_queue_.size()) * kChunkBytes;
    const int count = Read(bytes, room);
    if (count == 0 || (count < 0 && has_write_failed_)) {
      OnEndOfFile();
      return;
    }
    if (count < 0) {
      // The conduit stays open: a connection that is really gone shows as end
      // of file or as a failed write.
      if (errno != EAGAIN) {
        LOGW("[T:%u] Error reading from TcpConduit socket: %s", id_,
             strerror(errno));
      }
      return;
    }
    QueueChunks(bytes, static_cast<size_t>(count));
  }
  reactor_.Unregister(*this, Reactor::kRead);
}

// What the application wrote before its end goes to the link first. Until all
// of it has gone reading is off; GetNextBuffer() turns it on again, and the end
// is met once more.
void TcpConduit::OnEndOfFile() {
  if (!read_queue_.empty()) {
    reactor_.Unregister(*this, Reactor::kRead);
    return;
  }
  if (!has_write_failed_) {
    LOGD("[T:%u] Local application closed connection; closing stream.", id_);
  }
  SetClosed();
}

void TcpConduit::QueueChunks(const char* bytes, size_t count) {
  rx_bytes_ += static_cast<uint32_t>(count);
  for (size_t done = 0; done < count; done += kChunkBytes) {
    read_queue_.emplace_back(bytes + done, std::min(kChunkBytes, count - done));
    link_.OnTcpDataAvailable(id_);
  }
}

void TcpConduit::OnWriteReady() {
  if (!write_buffer_.Drain(*this)) {
    LOGE(
        "[T:%u] Unable to drain write buffer; assuming socket was "
        "disconnected.",
        id_);
    if (close_pending_) {
      // The link has forgotten this stream, so nobody else would end it.
      delete this;
      return;
    }
    OnWriteFailure();
    return;
  }
  if (!write_buffer_.IsEmpty()) return;
  reactor_.Unregister(*this, Reactor::kWrite);
  if (close_pending_) delete this;
}

// The application takes nothing more, as a rule because it has closed its
// socket. What it wrote before that can still be read; behind it is the end.
void TcpConduit::OnWriteFailure() {
  has_write_failed_ = true;
  reactor_.Unregister(*this, Reactor::kWrite);
  OnReadReady();
}

void TcpConduit::SetClosed() {
  closed_ = true;
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
  link_.OnTcpDataAvailable(id_);
}

void TcpConduit::HandleWriteAck() { ++send_credit_; }

void TcpConduit::Write(std::string data) {
  if (has_write_failed_) return;
  if (write_buffer_.IsEmpty()) reactor_.Register(*this, Reactor::kWrite);
  write_buffer_.Append(std::move(data));
}

void TcpConduit::Close() {
  const bool can_write = !closed_ && !has_write_failed_;
  if (can_write && !write_buffer_.IsEmpty()) {
    reactor_.Unregister(*this, Reactor::kRead);
    close_pending_ = true;
    return;
  }
  delete this;
}

void TcpConduit::Reset() {
  const bool is_delivered =
      close_pending_ && write_buffer_.Drain(*this) && write_buffer_.IsEmpty();
  if (!is_delivered) ResetOnClose();
  delete this;
}

bool TcpConduit::HasBuffer() const {
  if (closed_) return true;
  return send_credit_ > 0 && !read_queue_.empty();
}

bool TcpConduit::GetNextBuffer(std::string* out) {
  if (closed_) return false;
  assert(!read_queue_.empty());
  --send_credit_;
  reactor_.Register(*this, Reactor::kRead);
  out->swap(read_queue_.front());
  read_queue_.pop_front();
  return true;
}

void TcpConduit::Dump(std::stringstream& out) const {
  out << remote_ << VANTREL_TEXT_DUMP_STREAM_RX << rx_bytes_
      << VANTREL_TEXT_DUMP_STREAM_TX << write_buffer_.GetTotalWrittenByteCount()
      << VANTREL_TEXT_DUMP_STREAM_QUEUED << write_buffer_.GetQueuedByteCount()
      << ", buf_length: " << write_buffer_.GetQueuedItemCount() << std::endl;
}

}  // namespace vantrel
