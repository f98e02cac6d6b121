#include "link/bluetooth_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "capture/link_model_testing.h"
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

const HostAndPort kApp = Endpoint("C0A8A7EF", 40000);
const HostAndPort kDns = Endpoint("C6336435", 53);

// Records instead of sending.
class FakeUdpConduit : public UdpConduit {
 public:
  FakeUdpConduit(Reactor& reactor, const HostAndPort& remote,
                 std::vector<std::string>* sent)
      : UdpConduit(reactor, remote), sent_(sent) {}
  bool Bind() override { return true; }
  void SendResponse(const HostAndPort& to, const std::string& data) override {
    sent_->push_back("answer " + to.ToString() + " " + data);
  }
  void SendFailure(const HostAndPort& to, const std::string& data) override {
    sent_->push_back("failure " + to.ToString() + " " + data);
  }

 private:
  std::vector<std::string>* const sent_;
};

class BluetoothSocketTest : public ::testing::Test {
 protected:
  // Afterwards the peer has read what the link sends on its own.
  void Connect(BluetoothSocket::Flags flags) {
    link_ = std::make_unique<BluetoothSocket>(
        &delegate_, reactor_, flags,
        [this](Reactor& reactor, const HostAndPort& remote) {
          return new FakeUdpConduit(reactor, remote, &udp_);
        });
    int fd;
    std::tie(fd, peer_) = MakeSocketPair();
    const std::string header = GoodConnectionHeader();
    peer_->Write(header.data(), header.size());
    ASSERT_TRUE(link_->Connect(fd));
    if (flags == BluetoothSocket::FLAG_ALL) {
      ASSERT_EQ(Bytes("10 00000005 0000"), Flush());
      PeerSends(Bytes("11 00000005 0000"));
      ASSERT_EQ(Bytes("12 00000005 0000"), Flush());
    }
    TakeUsage();
    log_.Take();
  }
  void PeerSends(const std::string& bytes) {
    peer_->Write(bytes.data(), bytes.size());
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
  std::vector<std::string> udp_;
  std::unique_ptr<Socket> peer_;
  std::unique_ptr<BluetoothSocket> link_;
};

TEST_F(BluetoothSocketTest, ReadsOnlySoMuchInOneTurn) {
  Connect(BluetoothSocket::FLAG_ALL);
  const size_t count = ReadInOneTurn(
      *link_, *peer_, v1::TcpData(9, 999) + std::string(999, 'x'));
  EXPECT_GE(count, Reactor::kMaxReadBytes);
  EXPECT_LT(count, Reactor::kMaxReadBytes + 65536);
}

// Also where it comes at the end of a turn that has read its share.
TEST_F(BluetoothSocketTest, AFullBufferEndsTheLinkInItsTurn) {
  Connect(BluetoothSocket::FLAG_NONE);
  std::string wire = v1::TcpData(9, 65535) + std::string(65535, 'x');
  while (wire.size() < 65567) wire += Bytes("05 00000000");
  wire += '\x08' + std::string(65566, 'x');
  const int buffer = 1 << 20;
  setsockopt(peer_->GetFd(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
  PeerSends(wire);
  EXPECT_TRUE(stop_.TakeStop());
}

TEST_F(BluetoothSocketTest, OnlyTheExpectedAcknowledgementIsAccepted) {
  const std::pair<BluetoothSocket::Flags, std::string> cases[] = {
      {BluetoothSocket::FLAG_HANDSHAKE, "4"},
      {BluetoothSocket::FLAG_NONE, "5"},  // none was asked
      {BluetoothSocket::FLAG_ALL, "5"},   // a second one
  };
  for (const auto& [flags, version] : cases) {
    Connect(flags);
    PeerSends(Bytes("11 0000000" + version + " 0000"));
    EXPECT_THAT(log_.Take(),
                Contains("E: [B] Unexpected handshake ACK " + version));
    EXPECT_TRUE(stop_.TakeStop());
    EXPECT_THAT(delegate_.calls, ElementsAre("teardown"));
    delegate_.calls.clear();
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
    std::string wire;
    uint32_t charged;
    std::string effect;  // what the conduits and the delegate saw
  } cases[] = {
      {"03 00000007 0002 6869", 10123, "write hi"},
      {"03 00000007 0000", 10123, "write "},
      {"03 0000002A 0001 41", kNobody, ""},
      {"06 00000007", kNobody, "ack"},
      {"02 00000007", 10123, "close"},
      {"02 00000008", kNobody, ""},
      {"04 C6336435 0035 0001 41", kNobody, ""},  // of the other form
      {"0E C0A8A7EF 9C40 C6336435 0035 FFFF 0002 6869", kNobody,
       "answer 192.168.167.239:40000 hi"},
      {"0F C0A8A7EF 9C40 C6336435 0035 0001 41", kNobody,
       "failure 192.168.167.239:40000 A"},
      // To an endpoint that has asked, and to one that has not.
      {"0E 7F000001 9C41 C6336435 0035 FFFF 0002 6869", kNobody,
       "answer 127.0.0.1:40001 hi"},
      {"0E 7F000001 0946 C6336435 0035 FFFF 0001 01", kNobody, ""},
      {"0F 7F000001 0946 C6336435 0035 0001 01", kNobody, ""},
      {"0B FFFFFFFF 02", kNobody, "network -1 metered"},
      {"09 00000063 0001 61", kNobody, ""},      // of a pull nobody asked for
      {"00 01 0A 0C 0D 10 12 FF", kNobody, ""},  // skipped byte by byte
  };
  for (const auto& c : cases) {
    for (const bool in_pieces : {false, true}) {
      SCOPED_TRACE(c.wire + (in_pieces ? ", in pieces" : ""));
      Connect(BluetoothSocket::FLAG_ALL);
      FakeConduit stream(7, 10123, "p");
      link_->RegisterTcpStream(&stream);
      link_->SendDatagram(kApp, kDns, "query");
      link_->SendDatagram(Endpoint("7F000001", 40001), kDns, "query");
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
      if (effects.empty()) effects.push_back("");
      EXPECT_THAT(effects, ElementsAre(c.effect));
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
  FakeConduit browser(1, 10123, "com.b"), again(2, 10123, "com.b");
  FakeConduit root(3, 0, "root"), root_again(4, 0, "root");
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
  for (const uint32_t id : {1, 2, 3}) link_->OnTcpDataAvailable(id);
  EXPECT_EQ(Bytes("03 00000001 0002 6131 02 00000002 03 00000003 0002 6331"
                  "03 00000001 0002 6132"),
            Flush());
  EXPECT_EQ((Usage{{10123, {0, 23}}, {0, {0, 9}}}), TakeUsage());
  EXPECT_FALSE(reactor_.IsRegistered(*link_, Reactor::kWrite));
}

TEST_F(BluetoothSocketTest, PullCompletesAndReportsTheExcess) {
  Connect(BluetoothSocket::FLAG_NONE);
  link_->Pull(1000);
  EXPECT_EQ(Bytes("08 00000000 000003E8"), Flush());
  log_.Take();
  const std::string data = Bytes("09 00000000 0258") + std::string(600, 'x');
  PeerSends(data);
  EXPECT_THAT(log_.Take(), IsEmpty());
  PeerSends(data);
  EXPECT_THAT(log_.Take(),
              ElementsAre(HasSubstr("D: [B] Pull 0 completed with an rx rate"),
                          "E: [B] Received 200 more bytes than originally "
                          "requested."));
}

TEST_F(BluetoothSocketTest, DumpAndTheStatisticsItSplits) {
  Connect(BluetoothSocket::FLAG_NONE);
  FakeConduit stream(7, 10123, ""), queued(8, 10123, "");
  link_->RegisterTcpStream(&stream);
  Flush();
  EXPECT_EQ((Usage{{10123, {0, 18}}}), TakeUsage());
  EXPECT_TRUE(TakeUsage().empty());
  EXPECT_THAT(log_.Take(), ElementsAre("D: uid usage empty"));
  PeerSends(Bytes("03 00000007 0001 41"));
  link_->RegisterTcpStream(&queued);
  std::stringstream out;
  link_->Dump(out);
  EXPECT_EQ(
      "Bluetooth socket state:\n    rx_bytes: 8\n    tx_bytes: 18\n"
      "   buf_bytes: 18\n  buf_length: 2\n         [RW]\n\nTCP streams:\n"
      "     7: stream\n     8: stream\nUID usage since last transfer stats "
      "request:\n"
      "UID Usage:\n  10123 RX: 8 TX: 18\n"
      "UID usage since vantrel boot (excluding usage since last stats "
      "request):\nUID Usage:\n  10123 RX: 0 TX: 18\n",
      out.str());
}

class Language : public LinkLanguage {
 public:
  explicit Language(BluetoothSocket::Flags flags) : flags_(flags) {}
  std::unique_ptr<ProxySocket> MakeLink(ProxySocket::Delegate* delegate,
                                        Reactor& reactor) override {
    return std::make_unique<BluetoothSocket>(delegate, reactor, flags_,
                                             nullptr);
  }
  std::string Hello() override { return Handshake("10"); }
  std::string Ack() override { return Handshake("11"); }
  std::string Done() override { return Handshake("12"); }
  std::vector<std::string> Connect(uint8_t id, bool) override {
    return {Head(1, id) + Bytes("C6336450 0050 FFFF"), Bytes("0A FFFF 0000")};
  }
  std::string Data(uint8_t id, const std::string& bytes) override {
    return Head(3, id) + static_cast<char>(bytes.size() / 256) +
           static_cast<char>(bytes.size()) + bytes;
  }
  std::string Close(uint8_t id) override { return Head(2, id); }
  std::string WriteAck(uint8_t id) override { return Head(6, id); }
  bool ComesBack() override { return false; }

 private:
  std::string Handshake(const std::string& type) const {
    return flags_ == BluetoothSocket::FLAG_ALL ? Bytes(type + "00000005 0000")
                                               : "";
  }
  static std::string Head(char type, uint8_t id) {
    return {type, 0, 0, 0, static_cast<char>(id)};
  }

  const BluetoothSocket::Flags flags_;
};

TEST(LinkModelTest, DoesWhatTheModelDoes) {
  for (const auto flags :
       {BluetoothSocket::FLAG_NONE, BluetoothSocket::FLAG_ALL}) {
    Language language(flags);
    RunLinkModel(language, 10);
  }
}

}  // namespace
}  // namespace vantrel
