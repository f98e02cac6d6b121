#include "link/connection_header.h"

#include <errno.h>
#include <string.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/types.h>

#include "common/byte_order.h"
#include "common/log.h"

namespace vantrel {
namespace {

constexpr time_t kHeaderTimeoutSeconds = 5;

// Waits until |fd| is readable. select() counts |timeout| down, so the same
// one bounds all the waits for a header together.
bool WaitReadable(int fd, timeval* timeout) {
  while (true) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(fd, &readable);
    const int ready = select(fd + 1, &readable, nullptr, nullptr, timeout);
    if (ready > 0) return true;
    if (ready == 0) {
      LOGE("[B] Timed out waiting for connection header.");
      return false;
    }
    if (errno != EINTR) {
      LOGE("[B] Error waiting for connection header: %s", strerror(errno));
      return false;
    }
  }
}

bool ReceiveHeaderBytes(const Socket& socket, char* bytes) {
  timeval timeout = {kHeaderTimeoutSeconds, 0};
  size_t got = 0;
  while (got < kConnectionHeaderSize) {
    LOGD("[B] connect:select...");
    if (!WaitReadable(socket.GetFd(), &timeout)) return false;
    LOGD("[B] Connect: read header...");
    const ssize_t count = socket.Read(bytes + got, kConnectionHeaderSize - got);
    if (count <= 0) {
      LOGE("[B] Error reading from Bluetooth socket: %s", strerror(errno));
      return false;
    }
    got += static_cast<size_t>(count);
    LOGD("[B] Connect: read %zd:%zu header size: %zu", count, got,
         kConnectionHeaderSize);
  }
  // Cannot happen while the reads are bounded; guards the layout below.
  if (got != kConnectionHeaderSize) {
    LOGE("[B] Unable to read connection header; got %zd bytes.",
         static_cast<ssize_t>(got));
    return false;
  }
  return true;
}

}  // namespace

std::string EncodeConnectionHeader(const connection_header_t& header) {
  std::string out;
  PutLe32(&out, static_cast<uint32_t>(header.channel));
  PutLe16(&out, 0);
  out.append(header.address.begin(), header.address.end());
  PutLe32(&out, 0);
  PutLe32(&out, static_cast<uint32_t>(header.status));
  PutLe16(&out, header.max_tx_size);
  PutLe16(&out, header.max_rx_size);
  return out;
}

connection_header_t DecodeConnectionHeader(const char* bytes) {
  connection_header_t header;
  header.channel = static_cast<int32_t>(GetLe32(bytes));
  memcpy(header.address.data(), bytes + 6, header.address.size());
  header.status = static_cast<int32_t>(GetLe32(bytes + 16));
  header.max_tx_size = GetLe16(bytes + 20);
  header.max_rx_size = GetLe16(bytes + 22);
  return header;
}

bool IsUsableLinkDescriptor(int fd) {
  if (fd >= 0 && fd < FD_SETSIZE) return true;
  LOGE("[B] Invalid file descriptor supplied: %d", fd);
  return false;
}

bool ReceiveConnectionHeader(const Socket& socket,
                             connection_header_t* header) {
  char bytes[kConnectionHeaderSize];
  if (!ReceiveHeaderBytes(socket, bytes)) return false;
  *header = DecodeConnectionHeader(bytes);
  if (header->status != 0) {
    LOGE("[B] Connection status error: %d", header->status);
    return false;
  }
  const auto& a = header->address;
  LOGI("[B] Connected to %02X:%02X:%02X:%02X:%02X:%02X on channel %d.", a[0],
       a[1], a[2], a[3], a[4], a[5], header->channel);
  LOGI("[B] Expected max_tx_size %d max_rx_size %d", header->max_tx_size,
       header->max_rx_size);
  return true;
}

}  // namespace vantrel
