#include "companion/device_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <vector>

#include "link/v1_wire.h"

namespace vantrel {
namespace {

// An open descriptor that never blocks.
class End {
 public:
  explicit End(int fd) : fd_(fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }
  End(const End&) = delete;
  End& operator=(const End&) = delete;
  ~End() { close(fd_); }
  int GetFd() const { return fd_; }
  ssize_t Write(const std::string& bytes) const {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  // What is there; |is_ended| tells the end of the stream.
  std::string Read(bool* is_ended = nullptr) const {
    std::string all(1 << 20, '\0');
    const ssize_t count = read(fd_, all.data(), all.size());
    if (is_ended != nullptr) *is_ended = count == 0;
    all.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return all;
  }

 private:
  const int fd_;
};

// A real server on the loopback address.
class Server {
 public:
  explicit Server(int receive_buffer = 100000, int type = SOCK_STREAM)
      : socket_(socket(AF_INET, type, 0)) {
    setsockopt(socket_.GetFd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
               sizeof(receive_buffer));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, bind(socket_.GetFd(), generic, length));
    EXPECT_EQ(0, getsockname(socket_.GetFd(), generic, &length));
    endpoint = HostAndPort::FromIPv4Addr(address);
    listen(socket_.GetFd(), 8);
  }
  bool Accept() {
    const int fd = accept(socket_.GetFd(), nullptr, nullptr);
    if (fd == -1) return false;
    connections.push_back(std::make_unique<End>(fd));
    return true;
  }
  int GetFd() const { return socket_.GetFd(); }
  HostAndPort endpoint;
  std::vector<std::unique_ptr<End>> connections;

 private:
  const End socket_;
};

// The test plays the device, over protocol 1.
class DeviceLinkTest : public ::testing::Test {
 protected:
  DeviceLinkTest()
      : policy_({DestinationPolicy::ParseRule("127.0.0.0/8", true).value()},
                [this](const IpAddress&) {
                  if (has_no_memory_) throw std::bad_alloc();
                  return std::nullopt;
                }) {
    testing::internal::CaptureStderr();
    options_.protocol = 1;
  }
  ~DeviceLinkTest() override {
    link_.reset();
    if (!log_) testing::internal::GetCapturedStderr();
  }

  // A link gets a half of |max_descriptors|.
  void Start(size_t max_descriptors = 10000) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    device_ = std::make_unique<End>(fds[0]);
    link_.reset();
    if (!sockets_) sockets_.emplace(max_descriptors, 0, 1);
    link_ = std::make_unique<DeviceLink>(
        DeviceLink::shared_t{loop_, options_, destinations_, rules_, *sockets_,
                             turns_},
        UniqueFd(fds[1]), link_peer_t(), 1, [this] { ++changes_; });
    link_->Start();
  }
  // Runs the real loop until |condition| holds, which is tried in between. An
  // emulated machine beside other work takes its time.
  bool Until(const std::function<bool()>& condition) {
    const SteadyTime end = GetSteadyTime() + std::chrono::seconds(90);
    while (!condition()) {
      if (GetSteadyTime() > end) return false;
      loop_.run_one_for(std::chrono::milliseconds(1));
      loop_.restart();
    }
    return true;
  }
  bool Logs(const std::string& text) {
    log_ = testing::internal::GetCapturedStderr();
    return log_->find(text) != std::string::npos;
  }

  // Each of an application of its own.
  bool Connect(uint32_t id, const Server& server) {
    return device_->Write(v1::TcpConnect(id, server.endpoint,
                                         static_cast<uint16_t>(id))) > 0;
  }
  bool SendData(uint32_t id, const std::string& data) {
    return device_->Write(v1::TcpData(id, data.size()) + data) > 0;
  }
  // Takes the next whole message; false while there is none.
  bool Receives(const std::string& message) {
    received_ += device_->Read();
    const size_t size = v1::GetMessageSize(received_.data(), received_.size());
    if (size == 0 || size > received_.size()) return false;
    EXPECT_EQ(message, received_.substr(0, size));
    received_.erase(0, size);
    return true;
  }

  asio::io_context loop_{1};
  std::optional<SocketPool> sockets_;
  TurnQueue turns_{loop_};
  companion_options_t options_;
  bool has_no_memory_ = false;  // for an address that no rule names
  const DestinationPolicy policy_;
  NameServers name_servers_;
  const Destinations destinations_{policy_, name_servers_, options_.look_ups};
  TrafficRules rules_{loop_, options_.rules, [] {}};
  std::unique_ptr<End> device_;
  std::unique_ptr<DeviceLink> link_;
  std::string received_;
  std::optional<std::string> log_;
  int changes_ = 0;
};

// A remote that does not read: the companion acknowledges what the kernel
// takes and then nothing more.
class DeviceLinkCreditTest : public DeviceLinkTest {
 protected:
  static constexpr size_t kWriteBytes = 16000;

  // Sends as the credit allows, until no acknowledgement comes any more: the
  // pings prove that none is under way.
  void FillUp() {
    size_t pings = 0;
    while (pings < 100) {
      while (sent_ < acked_ + RemoteStream::kMaxUnacknowledgedWrites) {
        ASSERT_TRUE(SendData(1, std::string(kWriteBytes, 'x')));
        ++sent_;
      }
      device_->Write(v1::PingEcho(7));
      ASSERT_TRUE(Until([&] { return TakesPing(); }));
      pings = sent_ < acked_ + RemoteStream::kMaxUnacknowledgedWrites
                  ? 0
                  : pings + 1;
    }
  }
  bool TakesPing() {
    received_ += device_->Read();
    while (received_.size() >= 5) {
      const bool is_ping = received_[0] == TYPE_PING_ECHO;
      if (!is_ping) ++acked_;
      received_.erase(0, 5);
      if (is_ping) return true;
    }
    return false;
  }

  Server server_{4096};
  size_t sent_ = 0;
  size_t acked_ = 0;
};

TEST_F(DeviceLinkCreditTest, AcknowledgesDeliveredWritesAndDeliversAfterClose) {
  Start();
  ASSERT_TRUE(SendData(1, "dropped: no such stream"));
  ASSERT_TRUE(Connect(1, server_));
  FillUp();
  EXPECT_EQ(RemoteStream::kMaxUnacknowledgedWrites, sent_ - acked_);
  device_->Write(v1::TcpClose(1));
  // The id is free at once, though the first stream is still delivering.
  ASSERT_TRUE(Connect(1, server_));
  ASSERT_TRUE(Until([&] { return server_.Accept(); }));
  size_t arrived = 0;
  bool is_ended = false;
  ASSERT_TRUE(Until([&] {
    arrived += server_.connections[0]->Read(&is_ended).size();
    return is_ended;
  }));
  EXPECT_EQ(sent_ * kWriteBytes, arrived);
  EXPECT_TRUE(Until([&] { return server_.Accept(); }));
}

TEST_F(DeviceLinkCreditTest, EndsAStreamOrALinkThatTakesTooMuch) {
  options_.max_held_bytes =
      2 * RemoteStream::kMaxUnacknowledgedWrites * kWriteBytes;
  Start(17);  // enough for 4 streams
  ASSERT_TRUE(Connect(1, server_));
  FillUp();
  ASSERT_TRUE(SendData(1, "one more"));
  ASSERT_TRUE(Until([&] { return Receives(v1::TcpClose(1)); }));
  for (uint32_t id = 2; id <= 6; ++id) ASSERT_TRUE(Connect(id, server_));
  ASSERT_TRUE(Until([&] { return Receives(v1::TcpClose(6)); }));  // a fifth
  EXPECT_TRUE(link_->IsUp());
  std::string flood;
  for (uint32_t id = 2; id <= 5; ++id) {
    for (int i = 0; i < 100; ++i) {
      flood += v1::TcpData(id, 65535) + std::string(65535, 'x');
    }
  }
  bool is_ended = false;
  ASSERT_TRUE(Until([&] {
    const ssize_t count = device_->Write(flood);
    if (count > 0) flood.erase(0, static_cast<size_t>(count));
    device_->Read(&is_ended);
    return is_ended;
  }));
  device_.reset();
  EXPECT_TRUE(Until([&] { return !link_->IsUp(); }));
  EXPECT_TRUE(link_->HasFailed());
  EXPECT_TRUE(Logs("closing the link: too many bytes wait for remotes"));
}

// The remote never reads. A tick stands for a second.
TEST_F(DeviceLinkCreditTest, GivesUpAFinishingStreamThatMakesNoProgress) {
  Start(1);
  const auto tick = [&](int count) {
    for (int i = 0; i < count; ++i) link_->OnTick(GetSteadyTime());
  };
  ASSERT_TRUE(Connect(1, server_));
  FillUp();
  device_->Write(v1::TcpClose(1));
  ASSERT_TRUE(Connect(2, server_));
  ASSERT_TRUE(Until([&] { return Receives(v1::TcpClose(2)); }));  // no place
  tick(9);
  ASSERT_TRUE(Connect(3, server_));
  ASSERT_TRUE(Until([&] { return Receives(v1::TcpClose(3)); }));
  tick(1);
  sent_ = acked_ = 0;
  ASSERT_TRUE(Connect(1, server_));
  FillUp();
  device_.reset();
  ASSERT_TRUE(Until([&] { return !link_->IsUp(); }));
  tick(1);
  EXPECT_FALSE(link_->IsOver());
  tick(1);
  EXPECT_TRUE(link_->IsOver());
}

// Each remote sends more than the kernel holds for it, and the device asks
// for answers that it does not read.
TEST_F(DeviceLinkTest, HoldsRemotesAndDeviceBackWhileTheDeviceDoesNotRead) {
  Start();
  Server server;
  ASSERT_TRUE(Connect(1, server));
  ASSERT_TRUE(Until([&] { return server.Accept(); }));
  const std::string data(65536, 'x');
  ASSERT_TRUE(Until([&] {
    return server.connections[0]->Write(data) < 0 && loop_.poll() == 0;
  }));
  std::string pings;
  for (int i = 0; i < 10000; ++i) pings += v1::PingEcho(7);
  EXPECT_TRUE(
      Until([&] { return device_->Write(pings) < 0 && loop_.poll() == 0; }));
}

// A link may end in the middle of a message; what came before is delivered.
TEST_F(DeviceLinkTest, DeliversTheRestAfterTheLinkHasEnded) {
  Start();
  Server server;
  ASSERT_TRUE(Connect(1, server));
  ASSERT_TRUE(SendData(1, "last words"));
  device_->Write(v1::TcpData(1, 100) + "half of");
  device_.reset();
  ASSERT_TRUE(Until([&] { return !link_->IsUp(); }));
  EXPECT_FALSE(link_->IsOver());
  ASSERT_TRUE(Until([&] { return server.Accept(); }));
  std::string arrived;
  ASSERT_TRUE(Until([&] {
    arrived += server.connections[0]->Read();
    return arrived == "last words";
  }));
  server.connections.clear();
  EXPECT_TRUE(Until([&] { return link_->IsOver(); }));
  EXPECT_FALSE(link_->HasFailed());
  EXPECT_GT(changes_, 1);
}

// The device may take what is on its way and close its side. What it sends
// meanwhile is dropped.
TEST_F(DeviceLinkTest, ClosesInOrderOrAfterItsTime) {
  for (const bool closes_too : {true, false}) {
    Start();
    Server server;
    ASSERT_TRUE(Connect(1, server));
    ASSERT_TRUE(Until([&] { return server.Accept(); }));
    link_->Close("enough");
    const SteadyTime closed = GetSteadyTime();
    bool is_ended = false;
    ASSERT_TRUE(Until([&] {
      EXPECT_EQ("", device_->Read(&is_ended));
      return is_ended;
    }));
    ASSERT_TRUE(SendData(1, "too late"));
    is_ended = false;
    ASSERT_TRUE(Until([&] {
      EXPECT_EQ("", server.connections[0]->Read(&is_ended));
      return is_ended;
    }));
    link_->OnTick(closed + std::chrono::seconds(4));
    EXPECT_TRUE(link_->IsUp());
    if (closes_too) {
      device_.reset();
    } else {
      link_->OnTick(closed + std::chrono::seconds(6));
    }
    EXPECT_TRUE(Until([&] { return !link_->IsUp(); }));
    EXPECT_FALSE(link_->HasFailed());
  }
}

// In the middle of a message, with streams and flows of all kinds.
TEST_F(DeviceLinkCreditTest, EndsAloneWhenThereIsNoMemory) {
  Start();
  const auto other_device = std::move(device_);
  const auto other_link = std::move(link_);
  Start();
  ASSERT_TRUE(Connect(1, server_));
  FillUp();
  device_->Write(v1::TcpClose(1));
  ASSERT_TRUE(Connect(2, server_));
  link_->OnDatagram(server_.endpoint, server_.endpoint, "nobody there");
  has_no_memory_ = true;
  const HostAndPort unnamed(IpAddress::FromIPv4NetworkBytes(htonl(0xC0000201)),
                            80);
  device_->Write(v1::TcpConnect(3, unnamed, 3) + v1::PingEcho(7));
  ASSERT_TRUE(Until([&] { return link_->IsOver(); }));
  EXPECT_EQ(0u, link_->GetSocketCount());
  EXPECT_TRUE(link_->HasFailed());
  bool is_ended = false;
  device_->Read();
  device_->Read(&is_ended);
  EXPECT_TRUE(is_ended);
  EXPECT_GT(changes_, 0);
  device_ = std::make_unique<End>(dup(other_device->GetFd()));
  device_->Write(v1::PingEcho(8));
  EXPECT_TRUE(Until([&] { return Receives(v1::PingEcho(8)); }));
  EXPECT_TRUE(Logs("link 1: error: link down: out of memory"));
}

// So many new connections take more than one turn. An emulated processor needs
// seconds for them.
TEST_F(DeviceLinkTest, LetsOthersHaveTheirTurnBetween) {
  const HostAndPort remote = Server().endpoint;  // nobody there any more
  constexpr uint32_t kConnects = 200;
  Start();
  const auto busy_device = std::move(device_);
  const auto busy_link = std::move(link_);
  std::string connects;
  for (uint32_t id = 1; id <= kConnects; ++id) {
    connects += v1::TcpConnect(id, remote, static_cast<uint16_t>(id));
  }
  Start();
  busy_device->Write(connects);
  device_->Write(v1::PingEcho(7));
  ASSERT_TRUE(Until([&] { return Receives(v1::PingEcho(7)); }));
  EXPECT_LT(busy_link->GetSocketCount(), kConnects);
  const size_t all_closed = kConnects * v1::TcpClose(1).size();
  size_t received = 0;
  EXPECT_TRUE(Until([&] {
    received += busy_device->Read().size();
    return received == all_closed;
  }));
}

TEST_F(DeviceLinkTest, GivesUpADeviceThatSaysNothing) {
  options_.protocol = 20;
  Start();
  link_->OnTick(GetSteadyTime() + std::chrono::seconds(29));
  EXPECT_TRUE(link_->IsUp());
  link_->OnTick(GetSteadyTime() + std::chrono::seconds(30));
  EXPECT_TRUE(link_->IsOver());
  EXPECT_TRUE(Logs("link down: the device said nothing for 30 s"));
}

// The failure is what shows that the device has gone.
TEST_F(DeviceLinkTest, EndsWhileAFlowReportsAFailure) {
  Start();
  const HostAndPort remote = Server().endpoint;  // nobody there any more
  link_->OnDatagram(remote, remote, "x");
  device_.reset();
  EXPECT_TRUE(Until([&] { return link_->IsOver(); }));
}

TEST_F(DeviceLinkTest, ForgetsTheFlowThatWasSilentLongest) {
  Start();
  Server server(100000, SOCK_DGRAM);
  const auto send = [&](size_t local_port) {
    link_->OnDatagram(
        HostAndPort(server.endpoint.host, static_cast<uint16_t>(local_port)),
        server.endpoint, "x");
  };
  const auto flows = [&] {
    link_->LogState();
    const std::string log = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    const size_t end = log.rfind(" flows,");
    return std::stoul(log.substr(log.rfind(' ', end - 1)));
  };
  const auto tick = [&](int count) {
    for (int i = 0; i < count; ++i) link_->OnTick(GetSteadyTime());
  };
  for (size_t i = 1; i <= DatagramFlows::kMaxFlows; ++i) send(1000 + i);
  send(1001);  // the second is silent longest now
  send(2000);
  EXPECT_EQ(DatagramFlows::kMaxFlows, flows());

  // An answer to the first that is nearly five minutes late.
  char question;
  sockaddr_in asker = {};
  socklen_t length = sizeof(asker);
  ASSERT_EQ(1, recvfrom(server.GetFd(), &question, 1, 0,
                        reinterpret_cast<sockaddr*>(&asker), &length));
  tick(299);
  ASSERT_EQ(6, sendto(server.GetFd(), "answer", 6, 0,
                      reinterpret_cast<sockaddr*>(&asker), length));
  const HostAndPort local(server.endpoint.host, 1001);
  ASSERT_TRUE(Until([&] {
    return Receives(v1::UdpDatagramV2(local, server.endpoint, 0, 6) + "answer");
  }));
  tick(1);
  EXPECT_EQ(1u, flows());
  tick(299);
  EXPECT_EQ(0u, flows());
}

}  // namespace
}  // namespace vantrel
