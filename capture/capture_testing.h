// For unit tests of the capture side: the link, recorded.
#pragma once

#include <stdint.h>

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
  void OnTcpDataAvailable(uint32_t) override { ++data_available; }
  void SendDatagram(const HostAndPort&, const HostAndPort&,
                    const std::string&) override {
    ++datagrams;
  }
  void Dump(std::stringstream&) const override {}
  void Ping() override {}
  void Pull(uint32_t) override {}
  void Push(uint32_t) override {}
  void GetTransferStats(MessageUidTransferStatsInfo*) override {}

  std::vector<TcpConduitDelegate*> streams;  // own themselves
  int data_available = 0;                    // calls
  int datagrams = 0;                         // sent
};

}  // namespace vantrel
