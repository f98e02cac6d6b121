#include "capture/tcp_conduit.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/netfilter_ipv4.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "capture/capture_testing.h"
#include "capture/tcp_server.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace {
const sockaddr_in* original_destination = nullptr;  // null: ask the kernel
}

// In place of the C library's: connection tracking needs rules in the kernel.
extern "C" int getsockopt(int fd, int level, int name, void* value,
                          socklen_t* length) noexcept {
  if (level == SOL_IP && name == SO_ORIGINAL_DST && original_destination) {
    memcpy(value, original_destination, sizeof(*original_destination));
    return 0;
  }
  return static_cast<int>(
      syscall(SYS_getsockopt, fd, level, name, value, length));
}

namespace vantrel {
namespace {

using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

const char kDrainFailed[] =
    "E: [T:7] Unable to drain write buffer; assuming socket was disconnected.";

sockaddr_in Address(const char* address, uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  inet_pton(AF_INET, address, &result.sin_addr);
  return result;
}

// Stream 7 between an application and the link, both played by the test. Each
// test ends with the stream: the conduit owns itself.
class TcpConduitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    const sockaddr_in remote = Address("198.51.100.7", 80);
    original_destination = &remote;
    auto [fd, application] = MakeSocketPair();
    application_ = std::move(application);
    new TcpConduit(reactor_, link_, fd, 7);
    original_destination = nullptr;
    ASSERT_EQ(1u, link_.streams.size());
    conduit_ = static_cast<TcpConduit*>(link_.streams[0]);
    opening_ = log_.Take();
  }
  void Say(size_t bytes) {
    ASSERT_EQ(static_cast<int>(bytes),
              application_->Write(std::string(bytes, 'a').data(), bytes));
  }
  std::string Interest() {
    std::string interest;
    if (reactor_.IsRegistered(*conduit_, Reactor::kRead)) interest += 'R';
    if (reactor_.IsRegistered(*conduit_, Reactor::kWrite)) interest += 'W';
    return interest;
  }

  LogCapture log_;
  Reactor reactor_;
  FakeLink link_;
  std::unique_ptr<Socket> application_;
  std::vector<std::string> opening_;
  TcpConduit* conduit_;
};

TEST_F(TcpConduitTest, TellsWhatItKnows) {
  EXPECT_EQ("198.51.100.7:80", conduit_->GetRemote().ToString());
  EXPECT_EQ("R", Interest());
  EXPECT_THAT(opening_, Contains("W: [T:7] Unable to find UID for socket."));
  EXPECT_THAT(opening_.back(),
              AllOf(StartsWith("D: [T:7] Establishing a new TCP stream to: "
                               "198.51.100.7:80 (uid=4294967295) (package=) "
                               "(cookie="),
                    Not(HasSubstr("cookie=0"))));
  EXPECT_NE(')', opening_.back().back());
  Say(5);
  conduit_->OnReadReady();
  conduit_->Write("abc");
  conduit_->OnWriteReady();
  conduit_->Write("de");
  std::stringstream dump;
  conduit_->Dump(dump);
  EXPECT_EQ(
      "198.51.100.7:80, rx_bytes: 5, tx_bytes: 3, buf_bytes: 2, "
      "buf_length: 1\n",
      dump.str());
  conduit_->OnWriteReady();
  log_.Take();
  conduit_->Close();
  EXPECT_THAT(log_.Take(), ElementsAre("D: [T:7] Closed stream. RX/TX: 5/5"));
}

TEST_F(TcpConduitTest, FourChunksWaitAndEightAreInFlight) {
  Say(5 * 4096 + 1);
  conduit_->OnReadReady();
  EXPECT_EQ(4, link_.data_available);
  EXPECT_EQ("", Interest());
  std::string chunk;
  std::vector<size_t> sizes;
  for (int taken = 0; taken < 8; ++taken) {
    ASSERT_TRUE(conduit_->HasBuffer());
    ASSERT_TRUE(conduit_->GetNextBuffer(&chunk));
    sizes.push_back(chunk.size());
    EXPECT_EQ("R", Interest());
    if (taken == 5) Say(5 * 4096);
    conduit_->OnReadReady();
  }
  EXPECT_THAT(sizes, ElementsAre(4096, 4096, 4096, 4096, 4096, 1, 4096, 4096));
  EXPECT_FALSE(conduit_->HasBuffer()) << "credit is used up";
  conduit_->HandleWriteAck();
  EXPECT_TRUE(conduit_->HasBuffer());
  ASSERT_TRUE(conduit_->GetNextBuffer(&chunk));
  EXPECT_FALSE(conduit_->HasBuffer());

  application_.reset();  // seen although credit is 0
  conduit_->OnReadReady();
  EXPECT_THAT(log_.Take(), ElementsAre("D: [T:7] Local application closed "
                                       "connection; closing stream."));
  EXPECT_EQ("", Interest());
  EXPECT_TRUE(conduit_->HasBuffer());
  chunk = "untouched";
  EXPECT_FALSE(conduit_->GetNextBuffer(&chunk));
  EXPECT_EQ("untouched", chunk);
  conduit_->Write("nobody reads this");
  conduit_->Close();
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Closed stream.")));
}

TEST_F(TcpConduitTest, ACloseWaitsForWhatIsQueued) {
  conduit_->Write(std::string(300000, 'x'));
  conduit_->Write("end");
  EXPECT_EQ("RW", Interest());
  Say(3);
  conduit_->Close();
  EXPECT_EQ("W", Interest()) << "what the application still says is not read";
  conduit_->OnWriteReady();
  EXPECT_EQ("W", Interest());
  EXPECT_LT(0u, ReadAll(*application_).size());
  for (int i = 0; i < 20 && log_.Take().empty(); ++i) {
    conduit_->OnWriteReady();
    ReadAll(*application_);
  }
  EXPECT_EQ(-1, application_->Write("", 1)) << "closed";
}

TEST_F(TcpConduitTest, AFailedWriteEndsTheStream) {
  conduit_->Write("x");
  application_.reset();
  conduit_->OnWriteReady();
  EXPECT_EQ(kDrainFailed, log_.Take().back());
  EXPECT_EQ("", Interest());
  EXPECT_EQ(1, link_.data_available);
  EXPECT_TRUE(conduit_->HasBuffer());
  conduit_->Close();
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Closed stream.")));
}

// The link has forgotten the stream by then, so it ends itself.
TEST_F(TcpConduitTest, AFailedWriteEndsAClosePending) {
  conduit_->Write("x");
  application_.reset();
  conduit_->Close();
  log_.Take();
  conduit_->OnWriteReady();
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Broken pipe"), kDrainFailed,
                                       HasSubstr("Closed stream.")));
}

TEST(TcpServerTest, TakesOnlyRedirectedConnectionsAndNumbersAll) {
  LogCapture log;
  Reactor reactor;
  FakeLink link;
  TcpServer server(reactor, link);
  const sockaddr_in listener = Address("127.0.0.1", server.Listen());
  EXPECT_TRUE(reactor.IsRegistered(server, Reactor::kRead));
  // No destination; the listener itself, as connection tracking may say; and
  // a redirected one.
  const sockaddr_in remote = Address("198.51.100.7", 80);
  const sockaddr_in* const destinations[] = {nullptr, &listener, &remote};
  for (const sockaddr_in* destination : destinations) {
    EXPECT_THAT(link.streams, IsEmpty());
    const Socket client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(
        0, connect(client.GetFd(), reinterpret_cast<const sockaddr*>(&listener),
                   sizeof(listener)));
    log.Take();
    original_destination = destination;
    server.OnReadReady();
    if (destination == &remote) break;
    EXPECT_THAT(log.Take()[0], HasSubstr("Unable to get original destination"));
    char byte;
    EXPECT_EQ(0, client.Read(&byte, 1)) << "closed";
  }
  original_destination = nullptr;
  ASSERT_EQ(1u, link.streams.size());
  EXPECT_EQ(3u, link.streams[0]->GetId());
  link.streams[0]->Close();
  log.Take();
  server.OnReadReady();
  EXPECT_THAT(log.Take(), ElementsAre("W: [S] Error accepting client socket: "
                                      "Resource temporarily unavailable"));
}

}  // namespace
}  // namespace vantrel
