#include "companion/companion.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <functional>
#include <utility>
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
      : Socket(eventfd(1, EFD_CLOEXEC)),
        reactor_(reactor),
        steps_(std::move(steps)) {
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
  explicit Server(int receive_buffer = 100000)
      : socket_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
    setsockopt(socket_.GetFd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer,
               sizeof(receive_buffer));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(socket_.GetFd(), generic, length), 0);
    EXPECT_EQ(getsockname(socket_.GetFd(), generic, &length), 0);
    endpoint = HostAndPort::FromIPv4Addr(address);
    listen(socket_.GetFd(), 8);
  }
  bool Accept() {
    const int fd = accept4(socket_.GetFd(), nullptr, nullptr, SOCK_NONBLOCK);
    if (fd == -1) return false;
    connections.push_back(std::make_unique<Socket>(fd));
    return true;
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
  bool Receives(const std::string& message) {
    received_ += ReadAll(*device_);
    const size_t size = v1::GetMessageSize(received_.data(), received_.size());
    if (size == 0 || size > received_.size()) return false;
    EXPECT_EQ(received_.substr(0, size), message);
    received_.erase(0, size);
    return true;
  }

  StopCatcher stop_;
  Reactor reactor_;
  Options options_;
  std::unique_ptr<Socket> device_;
  std::unique_ptr<Companion> companion_;
  std::string received_;
  std::string log_;
};

// Each remote sends 19 MB, more than the kernel holds for it.
TEST_F(CompanionTest, HoldsRemotesBackWhileTheDeviceDoesNotRead) {
  Server server;
  const std::string data(65536, 'x');
  int last = 0;
  Run({[&] { return Connect(1, server); }, [&] { return server.Accept(); },
       [&, cycles = 0]() mutable {
         last = server.connections[0]->Write(data.data(), data.size());
         return ++cycles == 300;
       }});
  EXPECT_EQ(last, -1);
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

  Server server_{4096};
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
       [&] { return Receives(v1::TcpClose(1)); }});
  EXPECT_NE(log_.find("stream 1: closed: the device sent more"),
            std::string::npos);
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
  EXPECT_EQ(exit_status, 0);
}

}  // namespace
}  // namespace vantrel
