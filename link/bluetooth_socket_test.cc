#include "link/bluetooth_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/hex_testing.h"
#include "link/link_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

using Usage = std::map<uint32_t, std::pair<uint32_t, uint32_t>>;  // rx, tx
constexpr uint32_t kNobody = 4294967295;

HostAndPort Endpoint(const std::string& address, unsigned short port) {
  return HostAndPort(IpAddress::FromNetworkBytes(Bytes(address)), port);
}
const HostAndPort kApp = Endpoint("C0A8A7EF", 40000);
const HostAndPort kDns = Endpoint("C6336435", 53);

// Records instead of sending; counts those that live.
class FakeUdpConduit : public UdpConduit {
 public:
  FakeUdpConduit(Reactor& reactor, const HostAndPort& remote, bool binds,
                 std::vector<std::string>* sent, int* alive)
      : UdpConduit(reactor, remote), binds_(binds), sent_(sent), alive_(alive) {
    ++*alive_;
  }
  ~FakeUdpConduit() override { --*alive_; }
  bool Bind() override { return binds_; }
  void SendResponse(const HostAndPort& to, const std::string& data) override {
    sent_->push_back("answer " + to.ToString() + " " + data);
  }
  void SendFailure(const HostAndPort& to, const std::string& data) override {
    sent_->push_back("failure " + to.ToString() + " " + data);
  }

 private:
  const bool binds_;
  std::vector<std::string>* const sent_;
  int* const alive_;
};

class BluetoothSocketTest : public ::testing::Test {
 protected:
  // Afterwards the peer has read what the link sends on its own.
  void Connect(BluetoothSocket::Flags flags) {
    link_ = std::make_unique<BluetoothSocket>(
        &delegate_, reactor_, flags,
        [this](Reactor& reactor, const HostAndPort& remote) {
          return new FakeUdpConduit(reactor, remote, binds_, &udp_, &alive_);
        });
    int fd;
    std::tie(fd, peer_) = MakeSocketPair();
    PeerWrites(GoodConnectionHeader());
    ASSERT_TRUE(link_->Connect(fd));
    if (flags == BluetoothSocket::FLAG_ALL) {
      ASSERT_EQ(Bytes("10 00000005 0000"), Flush());
      PeerSends(Bytes("11 00000005 0000"));
      ASSERT_EQ(Bytes("12 00000005 0000"), Flush());
    }
    TakeUsage();
    log_.Take();
  }
  void PeerWrites(const std::string& bytes) {
    ASSERT_EQ(static_cast<int>(bytes.size()),
              peer_->Write(bytes.data(), bytes.size()));
  }
  void PeerSends(const std::string& bytes) {
    PeerWrites(bytes);
    link_->OnReadReady();
  }
  std::string Flush() {
    link_->OnWriteReady();
    return ReadAll(*peer_);
  }
  Usage TakeUsage() {
    MessageUidTransferStatsInfo stats;
    link_->GetTransferStats(&stats);
    Usage usage;
    for (const auto& s : stats.uid_transfer_stats()) {
      usage[s.uid()] = {s.rx_bytes(), s.tx_bytes()};
    }
    return usage;
  }

  LogCapture log_;
  StopCatcher stop_;
  Reactor reactor_;
  FakeLinkDelegate delegate_;
  bool binds_ = true;
  std::vector<std::string> udp_;
  int alive_ = 0;
  std::unique_ptr<Socket> peer_;
  std::unique_ptr<BluetoothSocket> link_;
};

TEST_F(BluetoothSocketTest, OnlyTheExpectedAcknowledgementIsAccepted) {
  const struct {
    const char* name;
    BluetoothSocket::Flags flags;
    std::string ack;
    int version;
  } cases[] = {
      {"another version", BluetoothSocket::FLAG_HANDSHAKE, "11 00000004 0000",
       4},
      {"none was asked for", BluetoothSocket::FLAG_NONE, "11 00000005 0000", 5},
      {"a second one", BluetoothSocket::FLAG_ALL, "11 00000005 0000", 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    delegate_.calls.clear();
    Connect(c.flags);
    PeerSends(Bytes(c.ack));
    EXPECT_THAT(log_.Take(), Contains("E: [B] Unexpected handshake ACK " +
                                      std::to_string(c.version)));
    EXPECT_TRUE(stop_.TakeStop());
    EXPECT_THAT(delegate_.calls, ElementsAre("teardown"));
  }
}

// The payload of an acknowledgement is skipped whenever it comes, and never
// read beyond what has arrived.
TEST_F(BluetoothSocketTest, PayloadOfAnAcknowledgementIsSkipped) {
  Connect(BluetoothSocket::FLAG_HANDSHAKE);
  PeerSends(Bytes("11 00000005 0004 41"));
  EXPECT_THAT(log_.Take(), ElementsAre("D: [B] TYPE_HANDSHAKE_ACK 8",
                                       "I: [B] Handshake Done: 5"));
  PeerSends(Bytes("4243"));
  PeerSends(Bytes("44 0B 00000007 00"));
  EXPECT_THAT(log_.Take(), ElementsAre("D: [B] TYPE_ACTIVE_NETWORK_STATE",
                                       "D: [B] network_id: 7, is_metered: 0"));
  EXPECT_EQ((Usage{{kNobody, {11 + 6, 7}}}), TakeUsage());
}

TEST_F(BluetoothSocketTest, IncomingMessagesInAnyPieces) {
  const struct {
    const char* name;
    std::string wire;
    uint32_t charged;
    std::string effect;  // what the conduits and the delegate saw
  } cases[] = {
      {"data", "03 00000007 0002 6869", 10123, "write hi"},
      {"data of length 0", "03 00000007 0000", 10123, "write "},
      {"data for nobody", "03 0000002A 0001 41", kNobody, ""},
      {"acknowledgement", "06 00000007", kNobody, "ack"},
      {"close", "02 00000007", 10123, "close"},
      {"close of nobody", "02 00000008", kNobody, ""},
      {"datagram of the other form", "04 C6336435 0035 0001 41", kNobody, ""},
      {"datagram", "0E C0A8A7EF 9C40 C6336435 0035 FFFF 0002 6869", kNobody,
       "answer 192.168.167.239:40000 hi"},
      {"failure", "0F C0A8A7EF 9C40 C6336435 0035 0001 41", kNobody,
       "failure 192.168.167.239:40000 A"},
      {"network", "0B FFFFFFFF 02", kNobody, "network -1 metered"},
      {"data of an unknown pull", "09 00000063 0001 61", kNobody, ""},
  };
  for (const auto& c : cases) {
    for (const bool in_pieces : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (in_pieces ? ", in pieces" : ""));
      Connect(BluetoothSocket::FLAG_ALL);
      FakeConduit stream(7, 10123, "p");
      link_->RegisterTcpStream(&stream);
      link_->SendDatagram(kApp, kDns, "query");
      Flush();
      TakeUsage();
      log_.Take();
      udp_.clear();
      delegate_.calls.clear();

      const std::string wire = Bytes(c.wire) + '\x05' + "time";
      for (size_t i = 0; i < wire.size(); i += in_pieces ? 1 : wire.size()) {
        PeerSends(in_pieces ? wire.substr(i, 1) : wire);
      }
      std::vector<std::string> effects = delegate_.calls;
      for (const auto& data : stream.written)
        effects.push_back("write " + data);
      if (stream.acks > 0) effects.push_back("ack");
      if (stream.closes > 0) effects.push_back("close");
      effects.insert(effects.end(), udp_.begin(), udp_.end());
      if (c.effect.empty()) {
        EXPECT_THAT(effects, IsEmpty());
      } else {
        EXPECT_THAT(effects, ElementsAre(c.effect));
      }
      // The message behind it was found, and every byte charged.
      EXPECT_THAT(log_.Take(), Contains(HasSubstr("[B] PING TIME (ms): ")));
      const auto size = static_cast<uint32_t>(wire.size()) - 5;
      Usage expected{{c.charged, {size, 0}}};
      expected[kNobody].first += 5;
      EXPECT_EQ(expected, TakeUsage());
      EXPECT_EQ(stream.acks > 0,
                reactor_.IsRegistered(*link_, Reactor::kWrite));
    }
  }
}

TEST_F(BluetoothSocketTest, UnknownTypesAreSkippedByteByByte) {
  Connect(BluetoothSocket::FLAG_NONE);
  PeerSends(Bytes("00 01 0A 0C 0D 10 12 FF"));
  std::vector<std::string> expected;
  for (const int type : {0, 1, 10, 12, 13, 16, 18, 255}) {
    expected.push_back("E: [B] Skipping unknown message type " +
                       std::to_string(type));
  }
  EXPECT_EQ(expected, log_.Take());
  EXPECT_EQ((Usage{{kNobody, {8, 0}}}), TakeUsage());
}

TEST_F(BluetoothSocketTest, PullRequestStallsUntilTheFullBufferEndsTheLink) {
  Connect(BluetoothSocket::FLAG_NONE);
  PeerSends(Bytes("08 00000001 00000002 05 00000000"));
  EXPECT_THAT(log_.Take(),
              ElementsAre("E: [B] Push from vantrel is unsupported."));
  std::string filler(65567 - 14 - 1, '\x05');
  PeerSends(filler);
  EXPECT_FALSE(stop_.TakeStop());
  PeerSends("x");
  EXPECT_TRUE(stop_.TakeStop());
  EXPECT_TRUE(TakeUsage().empty());
}

TEST_F(BluetoothSocketTest, StreamsOnTheWireAndWhoIsCharged) {
  Connect(BluetoothSocket::FLAG_NONE);
  FakeConduit browser(1, 10123, "com.b");
  FakeConduit again(2, 10123, "com.b");
  FakeConduit root(3, 0, "root");
  FakeConduit root_again(4, 0, "root");
  FakeConduit duplicate(4, 1, "");
  const std::string remote = "C6336450 0050";
  link_->RegisterTcpStream(&browser);
  EXPECT_EQ(Bytes("01 00000001" + remote + "278B 0A 278B 0005") + "com.b",
            Flush());
  // Announced again: its two bytes read otherwise in the other order.
  link_->RegisterTcpStream(&again);
  EXPECT_EQ(Bytes("01 00000002" + remote + "278B 0A 278B 0005") + "com.b",
            Flush());
  link_->RegisterTcpStream(&root);
  EXPECT_EQ(Bytes("01 00000003" + remote + "0000 0A 0000 0004") + "root",
            Flush());
  link_->RegisterTcpStream(&root_again);
  link_->RegisterTcpStream(&duplicate);
  EXPECT_EQ(Bytes("01 00000004" + remote + "0000"), Flush());
  EXPECT_THAT(log_.Take(), ElementsAre("W: [B] Duplicate stream id 4"));
  EXPECT_EQ((Usage{{10123, {0, 46}}, {0, {0, 35}}}), TakeUsage());

  browser.chunks = {"a1", "a2"};
  root.chunks = {"c1"};
  again.ended = true;
  EXPECT_EQ(Bytes("03 00000001 0002") + "a1" + Bytes("02 00000002") +
                Bytes("03 00000003 0002") + "c1" + Bytes("03 00000001 0002") +
                "a2",
            Flush());
  EXPECT_EQ(1, again.closes);
  EXPECT_EQ((Usage{{10123, {0, 23}}, {0, {0, 9}}}), TakeUsage());
  EXPECT_FALSE(reactor_.IsRegistered(*link_, Reactor::kWrite));
}

TEST_F(BluetoothSocketTest, FullQueueLeavesStreamsAloneAndKeepsWriting) {
  Connect(BluetoothSocket::FLAG_NONE);
  FakeConduit stream(1, 0, "");
  link_->RegisterTcpStream(&stream);
  Flush();
  stream.chunks = {"x"};
  for (int i = 0; i < 16; ++i) link_->Ping();
  EXPECT_EQ(16u * 5, Flush().size());
  EXPECT_EQ(1u, stream.chunks.size());
  EXPECT_TRUE(reactor_.IsRegistered(*link_, Reactor::kWrite));
  EXPECT_EQ(Bytes("03 00000001 0001") + "x", Flush());
  EXPECT_FALSE(reactor_.IsRegistered(*link_, Reactor::kWrite));
}

TEST_F(BluetoothSocketTest, DatagramsInBothForms) {
  Connect(BluetoothSocket::FLAG_NONE);
  const HostAndPort other_app = Endpoint("C0A8A7EF", 40001);
  link_->SendDatagram(kApp, kDns, "q");
  EXPECT_EQ(Bytes("04 C6336435 0035 0001") + "q", Flush());
  PeerSends(Bytes("04 C6336435 0035 0001 41"));
  // One conduit for both applications; the answers go to the later one.
  link_->SendDatagram(other_app, kDns, "");
  PeerSends(Bytes("07 C6336435 0035 0000"));
  EXPECT_EQ(1, alive_);
  EXPECT_THAT(udp_, ElementsAre("answer 192.168.167.239:40000 A",
                                "failure 192.168.167.239:40001 "));

  Connect(BluetoothSocket::FLAG_ALL);
  link_->SendDatagram(kApp, kDns, "q");
  // No such socket here, so no owner: the low 16 bits of "not found".
  EXPECT_EQ(Bytes("0E C0A8A7EF 9C40 C6336435 0035 FFFF 0001") + "q", Flush());
  EXPECT_EQ((Usage{{65535, {0, 18}}}), TakeUsage());

  binds_ = false;
  log_.Take();
  link_->SendDatagram(kApp, Endpoint("C6336436", 9), "q");
  EXPECT_EQ("", Flush());
  EXPECT_THAT(log_.Take(), ElementsAre("E: [B] Unable to bind socket to remote "
                                       "address 198.51.100.54:9, dropping "
                                       "packet."));
}

TEST_F(BluetoothSocketTest, The129thRemoteEvictsTheFirst) {
  Connect(BluetoothSocket::FLAG_ALL);
  for (unsigned short port = 1; port <= 128; ++port) {
    link_->SendDatagram(kApp, Endpoint("C6336435", port), "");
  }
  link_->SendDatagram(kApp, Endpoint("C6336435", 1), "");  // does not save it
  link_->SendDatagram(kApp, Endpoint("C6336435", 129), "");
  EXPECT_EQ(128, alive_);
  log_.Take();
  PeerSends(
      Bytes("0E C0A8A7EF 9C40 C6336435 0001 0000 0000"
            "0F C0A8A7EF 9C40 C6336435 0001 0000"));
  EXPECT_THAT(log_.Take(),
              ElementsAre("W: [B] Dropping v2 packet from 198.51.100.53:1 to "
                          "192.168.167.239:40000: evicted",
                          "W: [B] Dropping failed packet from 198.51.100.53:1 "
                          "to 192.168.167.239:40000: evicted"));
}

TEST_F(BluetoothSocketTest, PushSendsOneChunkPerWritableEvent) {
  Connect(BluetoothSocket::FLAG_NONE);
  link_->Push(100000);
  link_->Push(0);
  EXPECT_EQ(Bytes("0C 00000000 000186A0 0C 00000001 00000000"
                  "0D 00000000 FFFF") +
                std::string(65535, 'a') + Bytes("0D 00000001 0000"),
            Flush());
  EXPECT_THAT(log_.Take(),
              ElementsAre("D: [B] Starting push request 0 for 100000 bytes.",
                          "D: [B] Starting push request 1 for 0 bytes.",
                          HasSubstr("D: [B] Push 1 completed with an approx tx "
                                    "rate of ")));
  EXPECT_TRUE(reactor_.IsRegistered(*link_, Reactor::kWrite));
  EXPECT_EQ(Bytes("0D 00000000 86A1") + std::string(34465, 'a'), Flush());
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Push 0 completed")));
}

TEST_F(BluetoothSocketTest, PullCompletesAndReportsTheExcess) {
  Connect(BluetoothSocket::FLAG_NONE);
  link_->Pull(1000);
  EXPECT_EQ(Bytes("08 00000000 000003E8"), Flush());
  const std::string data = Bytes("09 00000000 0258") + std::string(600, 'x');
  PeerSends(data);
  EXPECT_THAT(log_.Take(),
              ElementsAre("D: [B] Starting pull request 0 for 1000 bytes."));
  PeerSends(data + data);
  EXPECT_THAT(
      log_.Take(),
      ElementsAre(HasSubstr("D: [B] Pull 0 completed with an rx rate of "),
                  "E: [B] Received 200 more bytes than originally "
                  "requested."));
}

TEST_F(BluetoothSocketTest, DumpAndTheStatisticsItSplits) {
  Connect(BluetoothSocket::FLAG_NONE);
  FakeConduit stream(7, 10123, "");
  link_->RegisterTcpStream(&stream);
  Flush();
  EXPECT_EQ((Usage{{10123, {0, 18}}}), TakeUsage());
  EXPECT_TRUE(TakeUsage().empty());
  EXPECT_THAT(log_.Take(), ElementsAre("D: uid usage empty"));
  PeerSends(Bytes("03 00000007 0001 41"));
  link_->Ping();
  std::stringstream out;
  link_->Dump(out);
  EXPECT_EQ(
      "Bluetooth socket state:\n    rx_bytes: 8\n    tx_bytes: 18\n"
      "   buf_bytes: 5\n  buf_length: 1\n         [RW]\n\nTCP streams:\n"
      "     7: stream\nUID usage since last transfer stats request:\n",
      out.str().substr(0, out.str().find("UID Usage:")));
  EXPECT_THAT(out.str(), HasSubstr("\n  10123 RX: 8 TX: 0\n"));
  EXPECT_THAT(out.str(),
              HasSubstr("UID usage since vantrel boot (excluding usage since "
                        "last stats request):\nUID Usage:\n  10123 RX: 0 TX: "
                        "18\n"));
}

}  // namespace
}  // namespace vantrel
