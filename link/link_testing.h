// For unit tests of the links: the two interfaces that a link calls, recorded.
#pragma once

#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <deque>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/host_and_port.h"
#include "link/connection_header.h"
#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// A stream whose application the test plays. Owned by the test: Close() only
// records that it was called.
class FakeConduit : public ProxySocket::TcpConduitDelegate {
 public:
  FakeConduit(uint32_t id, uint32_t uid, const std::string& package)
      : id_(id), uid_(uid), package_(package) {}

  uint32_t GetId() const override { return id_; }
  HostAndPort GetRemote() const override {
    return HostAndPort(
        IpAddress::FromNetworkBytes(std::string("\xC6\x33\x64\x50", 4)), 80);
  }
  uint32_t GetUid() const override { return uid_; }
  std::string GetPackageName() const override { return package_; }
  void HandleWriteAck() override { ++acks; }
  void Write(std::string data) override { written.push_back(std::move(data)); }
  void Close() override { ++closes; }
  bool HasBuffer() const override { return ended || !chunks.empty(); }
  bool GetNextBuffer(std::string* out) override {
    if (ended) return false;
    *out = chunks.front();
    chunks.pop_front();
    return true;
  }
  void Dump(std::stringstream& out) const override { out << "stream\n"; }

  std::deque<std::string> chunks;  // for the link to take
  bool ended = false;
  std::vector<std::string> written;  // by the link
  int acks = 0;
  int closes = 0;

 private:
  const uint32_t id_;
  const uint32_t uid_;
  const std::string package_;
};

// Records each call as a short text.
class FakeLinkDelegate : public ProxySocket::Delegate {
 public:
  void HandleTeardown() override { calls.push_back("teardown"); }
  void HandleActiveNetworkStateChange(int network_id,
                                      bool is_metered) override {
    calls.push_back("network " + std::to_string(network_id) +
                    (is_metered ? " metered" : ""));
  }

  std::vector<std::string> calls;
};

// What the Bluetooth stack delivers first on a good connection.
inline std::string GoodConnectionHeader(uint16_t max_tx_size = 0) {
  connection_header_t header;
  header.max_tx_size = max_tx_size;
  return EncodeConnectionHeader(header);
}

// How many bytes |link| reads before others have their turn, of |message| again
// and again, which |peer| sends.
inline size_t ReadInOneTurn(Socket& link, const Socket& peer,
                            const std::string& message) {
  const int buffer = 4 * static_cast<int>(Reactor::kMaxReadBytes);
  setsockopt(peer.GetFd(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
  std::string flood;
  while (flood.size() < 2 * Reactor::kMaxReadBytes) flood += message;
  const int sent = peer.Write(flood.data(), flood.size());
  link.OnReadReady();
  int unread = 0;
  ioctl(link.GetFd(), FIONREAD, &unread);
  return static_cast<size_t>(sent - unread);
}

}  // namespace vantrel
