#include "companion/companion.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <map>
#include <vector>

#include "link/v1_wire.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// Runs the real loop until each step in turn has returned true; a step is
// tried once per cycle.
class Steps : public Socket {
 public:
  using Step = std::function<bool()>;

  Steps(Reactor& reactor, std::vector<Step> steps)
      : Socket(eventfd(1, EFD_CLOEXEC)), reactor_(reactor), steps_(steps) {
    reactor_.Register(*this, Reactor::kRead);
    reactor_.Start();
  }
  void OnReadReady() override {
    if (next_ < steps_.size() && !steps_[next_]()) return;
    if (++next_ == steps_.size()) reactor_.Stop();
  }

 private:
  Reactor& reactor_;
  const std::vector<Step> steps_;
  size_t next_ = 0;
};

// A real server on the loopback address. Its sockets never block.
class Server {
 public:
  explicit Server(int type = SOCK_STREAM, int receive_buffer = 0)
      : socket_(socket(AF_INET, type | SOCK_NONBLOCK, 0)) {
    if (receive_buffer > 0) {
      setsockopt(socket_.GetFd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
                 sizeof(receive_buffer));
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(socket_.GetFd(), generic, length), 0);
    EXPECT_EQ(getsockname(socket_.GetFd(), generic, &length), 0);
    endpoint = HostAndPort::FromIPv4Addr(address);
    if (type == SOCK_STREAM) listen(socket_.GetFd(), 8);
  }
  bool Accept() {
    const int fd = accept4(socket_.GetFd(), nullptr, nullptr, SOCK_NONBLOCK);
    if (fd == -1) return false;
    connections.push_back(std::make_unique<Socket>(fd));
    return true;
  }
  // Answers one datagram by |answer|.
  bool Answer(const std::string& answer) {
    char request[64];
    sockaddr_in from;
    socklen_t length = sizeof(from);
    auto* generic = reinterpret_cast<sockaddr*>(&from);
    if (recvfrom(socket_.GetFd(), request, sizeof(request), 0, generic,
                 &length) == -1) {
      return false;
    }
    return sendto(socket_.GetFd(), answer.data(), answer.size(), 0, generic,
                  length) != -1;
  }

  HostAndPort endpoint;
  std::vector<std::unique_ptr<Socket>> connections;

 private:
  const Socket socket_;
};

// The test plays the device, in the language of version 1.
class CompanionTest : public ::testing::Test {
 protected:
  CompanionTest() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    device_ = std::make_unique<Socket>(fds[0]);
    options_.protocol = 1;
    options_.fd = fds[1];
  }
  ~CompanionTest() override {
    testing::internal::CaptureStderr();
    companion_.reset();
    testing::internal::GetCapturedStderr();
  }

  // Returns the exit status.
  int Run(const std::vector<Steps::Step>& steps) {
    testing::internal::CaptureStderr();
    companion_ = std::make_unique<Companion>(reactor_, options_);
    EXPECT_TRUE(companion_->Start());
    const Steps run(reactor_, steps);
    const int exit_status = companion_->Finish();
    log_ = testing::internal::GetCapturedStderr();
    return exit_status;
  }

  bool Send(const std::string& bytes) {
    return device_->Write(bytes.data(), bytes.size()) ==
           static_cast<int>(bytes.size());
  }
  bool SendData(uint32_t id, const std::string& data) {
    return Send(v1::TcpData(id, data.size()) + data);
  }
  bool Connect(uint32_t id, const Server& server) {
    return Send(v1::TcpConnect(id, server.endpoint, 10123));
  }

  // Takes the next whole message; false while there is none.
  bool Receive() {
    received_ += ReadAll(*device_);
    const size_t size = v1::GetMessageSize(received_.data(), received_.size());
    if (size == 0 || size > received_.size()) return false;
    message_ = received_.substr(0, size);
    received_.erase(0, size);
    return true;
  }
  bool Receives(const std::string& message) {
    if (!Receive()) return false;
    EXPECT_EQ(message_, message);
    return true;
  }

  StopCatcher stop_;
  Reactor reactor_;
  Options options_;
  std::unique_ptr<Socket> device_;
  std::unique_ptr<Companion> companion_;
  std::string received_;
  std::string message_;  // the last one that Receive() took
  std::string log_;
};

TEST_F(CompanionTest, StreamsTakeTurnsAndNothingIsLostBeforeAClose) {
  constexpr size_t kBytes = 400000;
  Server server;
  std::map<uint32_t, std::string> data;
  std::vector<uint32_t> turns;  // the stream of each message
  size_t closed = 0;
  size_t turns_at_first_close = 0;
  // Each connection sends its number, kBytes times.
  std::vector<size_t> sent;
  const auto serve = [&] {
    while (server.Accept()) sent.push_back(0);
    for (size_t i = 0; i < sent.size(); ++i) {
      if (sent[i] == kBytes) continue;
      const std::string rest(kBytes - sent[i], static_cast<char>('1' + i));
      const int count = server.connections[i]->Write(rest.data(), rest.size());
      if (count > 0) sent[i] += static_cast<size_t>(count);
      if (sent[i] == kBytes) {
        shutdown(server.connections[i]->GetFd(), SHUT_WR);
      }
    }
    return true;
  };
  Run({[&] { return Connect(1, server) && serve(); },
       [&] { return Connect(2, server) && serve(); },
       [&] { return Connect(3, server) && serve(); },
       // Meanwhile the device does not read.
       [&, cycles = 0]() mutable { return serve() && ++cycles == 300; },
       [&] {
         received_ = ReadAll(*device_);
         // The link's queue and one message more, and the kernel's buffer.
         EXPECT_LT(received_.size(), 5 * DeviceLink::kRoomBytes);
         return true;
       },
       [&] {
         serve();
         while (Receive()) {
           const uint32_t id = v1::GetId(message_.data());
           if (message_[0] == TYPE_TCP_CLOSE) {
             if (closed++ == 0) turns_at_first_close = turns.size();
             EXPECT_EQ(data[id].size(), kBytes);
           } else {
             data[id] += message_.substr(7);
             turns.push_back(id);
           }
         }
         return closed == 3;
       }});
  for (uint32_t id = 1; id <= 3; ++id) {
    EXPECT_EQ(data[id], std::string(kBytes, static_cast<char>('0' + id)));
  }
  const auto all_here = std::find(turns.begin(), turns.end(), 3u);
  ASSERT_LT(all_here - turns.begin() + 20, ptrdiff_t(turns_at_first_close));
  for (auto turn = all_here + 2; turn < turns.begin() + turns_at_first_close;
       ++turn) {
    EXPECT_FALSE(*turn == turn[-1] && *turn == turn[-2])
        << "three in a row at " << turn - turns.begin();
  }
}

// A remote that does not read: the companion acknowledges what the kernel
// takes and then nothing more.
class CompanionCreditTest : public CompanionTest {
 protected:
  static constexpr size_t kWriteBytes = 16000;

  // Sends as the credit allows, until no acknowledgement comes any more.
  Steps::Step FillUp() {
    return [this, idle_cycles = 0]() mutable {
      while (sent_ < acked_ + RemoteStream::kMaxUnacknowledgedWrites) {
        if (!SendData(1, std::string(kWriteBytes, 'x'))) break;
        ++sent_;
        idle_cycles = 0;
      }
      while (Receives(v1::TcpWriteAck(1))) {
        ++acked_;
        idle_cycles = 0;
      }
      return ++idle_cycles == 300;
    };
  }

  Server server_{SOCK_STREAM, 4096};
  size_t sent_ = 0;
  size_t acked_ = 0;
};

TEST_F(CompanionCreditTest, AcknowledgesDeliveredWritesAndDeliversAfterClose) {
  size_t arrived = 0;
  Run({[&] { return SendData(1, "dropped: no such stream"); },
       [&] { return Connect(1, server_); }, FillUp(),
       [&] {
         EXPECT_EQ(sent_ - acked_, RemoteStream::kMaxUnacknowledgedWrites);
         return server_.Accept() && Send(v1::TcpClose(1));
       },
       // The id is free at once, though the first stream is still delivering.
       [&] { return Connect(1, server_); },
       [&] {
         char buffer[65536];
         int count;
         while ((count = server_.connections[0]->Read(buffer, 65536)) > 0) {
           arrived += static_cast<size_t>(count);
         }
         return count == 0;
       },
       [&] { return server_.Accept(); }});
  EXPECT_EQ(arrived, sent_ * kWriteBytes);
}

TEST_F(CompanionCreditTest, ClosesAStreamThatOverdrawsItsCredit) {
  Run({[&] { return Connect(1, server_); }, FillUp(),
       [&] { return SendData(1, "one more"); },
       [&] { return Receives(v1::TcpClose(1)); },
       // The link goes on.
       [&] { return Connect(2, server_) && SendData(2, "x"); },
       [&] { return Receives(v1::TcpWriteAck(2)); }});
  EXPECT_NE(log_.find("stream 1: closed: the device sent more"),
            std::string::npos);
}

TEST_F(CompanionTest, ClosesWhatCannotBeConnectedAndWhatIsReset) {
  const Server no_listener(SOCK_DGRAM);
  Server server;
  Run({[&] { return Connect(1, no_listener); },
       [&] { return Receives(v1::TcpClose(1)); },
       [&] { return Connect(2, server); }, [&] { return server.Accept(); },
       [&] {
         const linger reset = {1, 0};
         setsockopt(server.connections[0]->GetFd(), SOL_SOCKET, SO_LINGER,
                    &reset, sizeof(reset));
         server.connections.clear();
         return true;
       },
       [&] { return Receives(v1::TcpClose(2)); }});
  EXPECT_NE(log_.find("stream 1: connect to " +
                      no_listener.endpoint.ToString() + " (uid 10123)\n"),
            std::string::npos);
  EXPECT_NE(log_.find("failed: Connection refused"), std::string::npos);
}

TEST_F(CompanionTest, AnswersDatagramsAndReportsUnreachableOnes) {
  Server dns(SOCK_DGRAM);
  options_.dns_server = dns.endpoint;
  const HostAndPort asked(IpAddress::FromNetworkBytes("\xC6\x33\x64\x35"), 53);
  const HostAndPort local(IpAddress::FromNetworkBytes("\xC0\xA8\xA7\xEF"), 9);
  auto closed = std::make_unique<Server>(SOCK_DGRAM);
  const HostAndPort unreachable = closed->endpoint;
  closed.reset();
  const std::string longer(1200, 'r');  // than what the network quotes
  Run({[&] { return Send(v1::UdpDatagram(TYPE_UDP_DATAGRAM, asked, 1) + "q"); },
       [&] { return dns.Answer("answer"); },
       [&] {
         return Receives(v1::UdpDatagram(TYPE_UDP_DATAGRAM, asked, 6) +
                         "answer");
       },
       [&] {
         return Send(v1::UdpDatagramV2(local, unreachable, 0, 1200) + longer);
       },
       [&] {
         return Receives(v1::UdpFailureV2(local, unreachable, 1200) + longer);
       }});
}

TEST_F(CompanionTest, DeliversTheRestAfterTheOnlyLinkHasEnded) {
  Server server;
  std::string arrived;
  const int exit_status =
      Run({[&] { return Connect(1, server) && SendData(1, "last words"); },
           [&] {
             device_.reset();
             return true;
           },
           [&] { return server.Accept(); },
           [&] {
             arrived += ReadAll(*server.connections[0]);
             if (arrived != "last words") return false;
             server.connections.clear();
             return true;
           },
           [] { return false; }});  // the companion ends by itself
  EXPECT_EQ(arrived, "last words");
  EXPECT_EQ(exit_status, 0);
}

TEST_F(CompanionTest, GivesUpALinkThatCannotBeRead) {
  options_.protocol = 20;
  options_.send_header = true;
  options_.max_tx_size = 990;
  const int exit_status = Run({[&] { return Send(std::string(20000, 'X')); },
                               [&] {
                                 received_ += ReadAll(*device_);
                                 if (received_.size() <= 24) return false;
                                 device_.reset();
                                 return true;
                               },
                               [] { return false; }});
  EXPECT_EQ(exit_status, 1);
  EXPECT_EQ(received_.substr(0, 26),
            std::string(20, '\0') + std::string("\xDE\x03\0\0VN", 6));
  EXPECT_NE(received_.find("bad frame magic"), std::string::npos);
}

}  // namespace
}  // namespace vantrel
