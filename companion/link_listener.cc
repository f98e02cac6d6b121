#include "companion/link_listener.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "companion/companion_log.h"
#include "companion/tcp_address.h"

namespace vantrel {
namespace {

// Devices that may wait until they are accepted.
constexpr int kLinkBacklog = 64;
// How long to wait when the system has no descriptor for another link.
constexpr std::chrono::seconds kListenRetryTime{1};

bool Fail(const std::string& where, const char* why) {
  ProgramLog().Write(LogLevel::kError, LogKind::kLink,
                     "cannot listen on %s: %s", where.c_str(), why);
  return false;
}

// The reason is in errno.
bool Fail(const std::string& where) { return Fail(where, strerror(errno)); }

std::string DescribeTcp(const tcp_address_t& address) {
  return "tcp:" + ToText(address);
}

std::string DescribeRfcomm(const sockaddr_storage& address) {
  sockaddr_rc rfcomm;
  memcpy(&rfcomm, &address, sizeof(rfcomm));
  const uint8_t* const bytes = rfcomm.rc_bdaddr.b;  // last byte first
  BluetoothAddress peer = {};
  std::reverse_copy(bytes, bytes + peer.size(), peer.begin());
  return "rfcomm:" + ToText(peer);
}

std::string DescribeUnix(int fd) {
  ucred peer = {};
  socklen_t length = sizeof(peer);
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
  return "unix: process " + std::to_string(peer.pid) + " of user " +
         std::to_string(peer.uid);
}

std::string DescribePeer(int fd, const sockaddr_storage& address,
                         socklen_t length) {
  if (address.ss_family == AF_UNIX) return DescribeUnix(fd);
  return address.ss_family == AF_BLUETOOTH
             ? DescribeRfcomm(address)
             : DescribeTcp(tcp_address_t{address, length});
}

}  // namespace

LinkListener::LinkListener(asio::io_context& loop, OnLink on_link)
    : loop_(loop),
      on_link_(std::move(on_link)),
      retry_(loop, [this] { socket_->WaitReadable(); }) {}

bool LinkListener::Open(const link_address_t& address,
                        const settings_t& settings) {
  switch (address.kind) {
    case link_address_t::Kind::kUnix:
      return OpenUnix(address);
    case link_address_t::Kind::kTcp:
      return OpenTcp(address, settings.allows_remote_links);
    case link_address_t::Kind::kRfcomm:
      return OpenRfcomm(address, settings.security);
    case link_address_t::Kind::kBluetooth:  // see BluetoothListener
    case link_address_t::Kind::kFd:
      break;
  }
  return Fail(address.text, "nobody can listen there");
}

bool LinkListener::OpenUnix(const link_address_t& address) {
  UniqueFd fd = file_.Bind(address.path);
  return fd.Get() == -1 ? Fail(address.text)
                        : Listen(std::move(fd), address.text);
}

bool LinkListener::OpenTcp(const link_address_t& address,
                           bool allows_remote_links) {
  std::string reason;
  auto found = FindTcpAddress(address, &reason);
  if (!found) return Fail(address.text, reason.c_str());
  if (!IsLoopback(*found)) {
    if (!allows_remote_links) {
      return Fail(address.text,
                  "other machines reach it; see --allow-remote-links");
    }
    ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                       "whoever reaches %s can use this machine's network and "
                       "read along: put a tunnel in front of it",
                       address.text.c_str());
  }
  UniqueFd fd = BindTcp(&*found);
  return fd.Get() == -1 ? Fail(address.text)
                        : Listen(std::move(fd), DescribeTcp(*found));
}

bool LinkListener::OpenRfcomm(const link_address_t& address,
                              LinkSecurity security) {
  UniqueFd fd = OpenRfcommSocket(security);
  if (fd.Get() < 0) {
    return Fail(address.text, DescribeBluetoothFailure(errno).c_str());
  }
  sockaddr_rc name = {};  // any adapter
  name.rc_family = AF_BLUETOOTH;
  name.rc_channel = static_cast<uint8_t>(address.channel);
  if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) ==
      -1) {
    return Fail(address.text);
  }
  return Listen(std::move(fd), address.text);
}

bool LinkListener::Listen(UniqueFd fd, const std::string& where) {
  if (listen(fd.Get(), kLinkBacklog) == -1) return Fail(where);
  socket_ = std::make_unique<Descriptor>(loop_, std::move(fd),
                                         [this] { OnReadable(); });
  socket_->WaitReadable();
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink, "listening on %s",
                     where.c_str());
  return true;
}

void LinkListener::OnReadable() {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  UniqueFd fd(accept4(socket_->GetFd(), reinterpret_cast<sockaddr*>(&address),
                      &length, SOCK_CLOEXEC));
  if (fd.Get() != -1) {
    const std::string peer = DescribePeer(fd.Get(), address, length);
    if (file_.Admits(fd.Get())) {
      on_link_(std::move(fd), peer);
    } else {
      ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                         "link of %s refused: another user", peer.c_str());
    }
    return socket_->WaitReadable();
  }
  // The device may have gone again; the next one is waited for.
  if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) {
    return socket_->WaitReadable();
  }
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink, "no link accepted: %s",
                     strerror(errno));
  retry_.WaitFor(kListenRetryTime);
}

}  // namespace vantrel
