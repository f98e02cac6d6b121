#include "tools/launch/link_connector.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <fcntl.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <utility>

#include "bluez/service_search.h"
#include "support/system_failure.h"
#include "tools/launch/companion_finder.h"

namespace vantrel {
namespace {

// The longest that an address of a host name keeps the next one waiting.
constexpr std::chrono::milliseconds kAddressTimeout{3000};

// Where one attempt to connect waits, and how long.
struct wait_t {
  EventLoop* loop;
  std::chrono::milliseconds timeout;
};

UniqueFd OpenSocket(int family, int type, int protocol) {
  UniqueFd fd(socket(family, type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol));
  if (fd.Get() < 0) throw SystemFailure(errno);
  return fd;
}

void WaitConnected(int fd, const wait_t& wait) {
  wait.loop->AwaitReady(fd, EventLoop::Readiness::kWritable,
                        GetSteadyTime() + wait.timeout);
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
  if (error != 0) throw SystemFailure(error);
}

void ConnectSocket(int fd, const void* address, size_t length,
                   const wait_t& wait) {
  if (connect(fd, static_cast<const sockaddr*>(address),
              static_cast<socklen_t>(length)) == 0) {
    return;
  }
  if (errno != EINPROGRESS) throw SystemFailure(errno);
  WaitConnected(fd, wait);
}

UniqueFd ConnectUnix(const link_address_t& link, const wait_t& wait) {
  sockaddr_un address;
  const socklen_t length = ToSocketAddress(link.path, &address);
  UniqueFd fd = OpenSocket(AF_UNIX, SOCK_STREAM, 0);
  ConnectSocket(fd.Get(), &address, length, wait);
  return fd;
}

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

AddressList LookUp(const link_address_t& link) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error =
      getaddrinfo(link.host.c_str(), link.port.c_str(), &hints, &found);
  if (error != 0) throw std::runtime_error(gai_strerror(error));
  return AddressList(found, freeaddrinfo);
}

UniqueFd ConnectTcp(const link_address_t& link, wait_t wait) {
  const AddressList addresses = LookUp(link);
  const auto end = GetSteadyTime() + wait.timeout;
  for (const addrinfo* a = addresses.get();; a = a->ai_next) {
    const bool is_last = a->ai_next == nullptr;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - GetSteadyTime());
    wait.timeout = is_last ? left : std::min(left / 2, kAddressTimeout);
    try {
      UniqueFd fd = OpenSocket(a->ai_family, SOCK_STREAM, a->ai_protocol);
      ConnectSocket(fd.Get(), a->ai_addr, a->ai_addrlen, wait);
      TuneTcpLink(fd.Get());
      return fd;
    } catch (const std::system_error&) {
      if (is_last) throw;
    }
  }
}

sockaddr_rc MakeRfcommAddress(const BluetoothAddress& machine, int channel) {
  sockaddr_rc address = {};
  address.rc_family = AF_BLUETOOTH;
  address.rc_channel = static_cast<uint8_t>(channel);
  address.rc_bdaddr = ToKernel(machine);
  return address;
}

UniqueFd ConnectRfcomm(const found_companion_t& companion,
                       LinkSecurity security, const wait_t& wait) {
  UniqueFd fd = OpenRfcommSocket(security);
  if (fd.Get() < 0) throw std::runtime_error(DescribeBluetoothFailure(errno));
  if (companion.adapter) {
    const sockaddr_rc source = MakeRfcommAddress(*companion.adapter, 0);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&source),
             sizeof(source)) != 0) {
      throw SystemFailure(errno);
    }
  }
  const sockaddr_rc address =
      MakeRfcommAddress(companion.address, companion.channel);
  try {
    ConnectSocket(fd.Get(), &address, sizeof(address), wait);
  } catch (const std::system_error& e) {
    throw std::runtime_error(DescribeBluetoothFailure(e.code().value()));
  }
  return fd;
}

UniqueFd TakeDescriptor(const link_address_t& link) {
  const int flags = fcntl(link.fd, F_GETFL);
  if (flags < 0) throw SystemFailure(errno);
  UniqueFd fd(link.fd);
  fcntl(link.fd, F_SETFL, flags | O_NONBLOCK);
  fcntl(link.fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

// For kinds that have one: the companion, and where its daemon says that it is.
connected_link_t ConnectCompanion(const found_companion_t& companion,
                                  LinkSecurity security, const wait_t& wait) {
  connected_link_t link;
  link.fd = ConnectRfcomm(companion, security, wait);
  link.header.address = companion.address;
  link.header.channel = companion.channel;
  link.name = companion.name;
  return link;
}

connected_link_t ConnectBluetooth(const link_address_t& address,
                                  LinkSecurity security, const wait_t& wait) {
  const found_companion_t companion = FindCompanion(
      address.bluetooth, wait.loop, GetSteadyTime() + wait.timeout);
  connected_link_t link = ConnectCompanion(companion, security, wait);
  link.text = std::string(kBluetoothLink) + ":" + ToText(companion.address);
  return link;
}

connected_link_t MakeLink(UniqueFd fd) {
  connected_link_t link;
  link.fd = std::move(fd);
  return link;
}

connected_link_t Connect(const link_address_t& address, LinkSecurity security,
                         const wait_t& wait) {
  switch (address.kind) {
    case link_address_t::Kind::kUnix:
      return MakeLink(ConnectUnix(address, wait));
    case link_address_t::Kind::kTcp:
      return MakeLink(ConnectTcp(address, wait));
    case link_address_t::Kind::kRfcomm:
      return ConnectCompanion({*address.bluetooth, {}, "", address.channel},
                              security, wait);
    case link_address_t::Kind::kBluetooth:
      return ConnectBluetooth(address, security, wait);
    case link_address_t::Kind::kFd:
      return MakeLink(TakeDescriptor(address));
  }
  throw std::logic_error("unknown kind of link");
}

}  // namespace

std::string FindFaultOfDescriptor(int fd) {
  int type = 0;
  socklen_t length = sizeof(type);
  if (fcntl(fd, F_GETFD) < 0) return "not an open descriptor";
  if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0) {
    return "not a socket";
  }
  sockaddr_storage peer;
  length = sizeof(peer);
  if (type != SOCK_STREAM ||
      getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
    return "not a connected stream socket";
  }
  return "";
}

connected_link_t ConnectLink(const link_address_t& address,
                             LinkSecurity security, EventLoop* loop,
                             std::chrono::milliseconds timeout) {
  try {
    connected_link_t link = Connect(address, security, {loop, timeout});
    if (link.text.empty()) link.text = address.text;
    return link;
  } catch (const ChoiceNeeded&) {
    throw;
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("cannot connect " + address.text + ": " +
                             e.what());
  }
}

}  // namespace vantrel
