#include "companion/datagram_flows.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace vantrel {
namespace {

class NoSink : public DatagramFlows::Sink {
 public:
  bool HasRoomForAnswer() const override { return true; }
  void OnAnswer(const HostAndPort&, const HostAndPort&,
                const std::string&) override {}
  void OnFailure(const HostAndPort&, const HostAndPort&,
                 const std::string&) override {}
};

TEST(DatagramFlowsTest, KeepsTheFlowsThatWereUsedLast) {
  Reactor reactor;
  NoSink sink;
  DatagramFlows flows(reactor, sink, std::nullopt);
  const IpAddress loopback =
      IpAddress::FromIPv4NetworkBytes(htonl(INADDR_LOOPBACK));
  const auto send = [&](uint16_t local_port) {
    flows.Send(HostAndPort(loopback, local_port), HostAndPort(loopback, 9),
               "x");
  };
  for (size_t i = 0; i < DatagramFlows::kMaxFlows + 1; ++i) {
    send(static_cast<uint16_t>(1000 + i));
  }
  EXPECT_EQ(flows.GetFlowCount(), DatagramFlows::kMaxFlows);

  for (uint32_t i = 0; i < DatagramFlows::kMaxIdleTicks - 1; ++i) {
    flows.OnTick();
  }
  send(1001);  // had become the oldest
  EXPECT_EQ(flows.GetFlowCount(), DatagramFlows::kMaxFlows);
  flows.OnTick();
  EXPECT_EQ(flows.GetFlowCount(), 1u);
}

}  // namespace
}  // namespace vantrel
