// For unit tests of the capture side: the link, recorded.
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "link/proxy_socket.h"

namespace vantrel {

class FakeLink : public ProxySocket {
 public:
  bool Connect(int) override { return true; }
  void RegisterTcpStream(TcpConduitDelegate* conduit) override {
    streams.push_back(conduit);
  }
  void OnTcpDataAvailable() override { ++data_available; }
  void SendDatagram(const HostAndPort& source, const HostAndPort& destination,
                    const std::string& payload) override {
    datagrams.push_back({source, destination, payload});
  }
  void Dump(std::stringstream&) const override {}
  void Ping() override {}
  void Pull(unsigned int) override {}
  void Push(unsigned int) override {}
  void GetTransferStats(MessageUidTransferStatsInfo*) override {}

  struct datagram_t {
    HostAndPort source, destination;
    std::string payload;
  };
  std::vector<TcpConduitDelegate*> streams;  // own themselves
  int data_available = 0;                    // calls
  std::vector<datagram_t> datagrams;
};

}  // namespace vantrel
