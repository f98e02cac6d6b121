#include "capture/tcp_conduit.h"

#include <gmock/gmock.h>
#include <signal.h>

#include "capture/capture_testing.h"
#include "capture/original_destination_testing.h"
#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Stream 7 between an application and the link, both played by the test. Each
// test ends with the stream: the conduit owns itself.
class TcpConduitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    const HostAndPort remote = Endpoint("C6336407", 80);
    SetOriginalDestination(&remote);
    auto [fd, application] = MakeSocketPair();
    application_ = std::move(application);
    new TcpConduit(reactor_, link_, fd, 7, open_conduits_);
    SetOriginalDestination(nullptr);
    ASSERT_FALSE(link_.streams.empty());
    conduit_ = static_cast<TcpConduit*>(link_.streams.back());
    log_.Take();
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
  OpenConduits open_conduits_;
  std::unique_ptr<Socket> application_;
  TcpConduit* conduit_;
};

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

  conduit_->Close();
}

// Whatever ends it, and however little credit there is: what the application
// wrote goes first.
TEST_F(TcpConduitTest, TheEndOfTheApplicationWaitsForItsBytes) {
  for (const bool has_write_failed : {false, true}) {
    SCOPED_TRACE(has_write_failed);
    std::string chunk;
    Say(8 * 4096);
    for (int taken = 0; taken < 8; ++taken) {
      conduit_->OnReadReady();
      ASSERT_TRUE(conduit_->GetNextBuffer(&chunk));
    }
    Say(4097);
    application_.reset();
    if (has_write_failed) {
      conduit_->Write("x");
      conduit_->OnWriteReady();
      EXPECT_THAT(log_.Take().back(), HasSubstr("Unable to drain"));
    } else {
      conduit_->OnReadReady();
    }
    EXPECT_EQ("", Interest()) << "there is nothing to do";
    conduit_->Write("nobody reads this");
    for (const size_t size : {4096, 1}) {
      EXPECT_FALSE(conduit_->HasBuffer()) << "no credit";
      conduit_->HandleWriteAck();
      ASSERT_TRUE(conduit_->HasBuffer());
      ASSERT_TRUE(conduit_->GetNextBuffer(&chunk));
      EXPECT_EQ(size, chunk.size());
      EXPECT_THAT(Interest(), HasSubstr("R"));
      conduit_->OnReadReady();
    }
    EXPECT_EQ("", Interest());
    ASSERT_TRUE(conduit_->HasBuffer());
    chunk = "untouched";
    EXPECT_FALSE(conduit_->GetNextBuffer(&chunk));
    EXPECT_EQ("untouched", chunk);
    const auto lines = log_.Take();
    EXPECT_EQ(has_write_failed ? 0u : 1u, lines.size());
    conduit_->Close();
    EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Closed stream.")));
    SetUp();
  }
  conduit_->Close();
}

// The loop has found the application's socket to be readable, and then the
// link has brought the last bytes and the close in the same pass.
TEST_F(TcpConduitTest, AReadinessFromBeforeTheCloseTakesNothingAway) {
  Say(5);
  shutdown(application_->GetFd(), SHUT_WR);
  conduit_->Write("last");
  conduit_->Close();
  conduit_->OnReadReady();
  EXPECT_EQ("W", Interest());
  conduit_->OnWriteReady();
  EXPECT_EQ("last", ReadAll(*application_));
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Closed stream. RX/TX: 0/4")));
}

TEST_F(TcpConduitTest, AFailedWriteEndsTheStreamOrItsPendingClose) {
  conduit_->Write("x");
  application_.reset();
  conduit_->OnWriteReady();
  EXPECT_THAT(log_.Take().back(), HasSubstr("Unable to drain write buffer"));
  EXPECT_EQ("", Interest());
  EXPECT_EQ(1, link_.data_available);
  EXPECT_TRUE(conduit_->HasBuffer());
  conduit_->Close();
  EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr("Closed stream.")));

  SetUp();
  conduit_->Write("x");
  application_.reset();
  conduit_->Close();
  // The link has forgotten the stream by then, so it ends itself.
  conduit_->OnWriteReady();
  EXPECT_THAT(log_.Take().back(), HasSubstr("Closed stream."));
}

// Deleted within its own constructor.
TEST_F(TcpConduitTest, AConnectionThatWasNotRedirectedIsClosed) {
  conduit_->Close();
  auto [fd, application] = MakeSocketPair();
  link_.streams.clear();
  log_.Take();
  new TcpConduit(reactor_, link_, fd, 8, open_conduits_);
  EXPECT_THAT(log_.Take()[0], HasSubstr("Unable to get original destination"));
  EXPECT_THAT(link_.streams, IsEmpty());
  char byte;
  EXPECT_EQ(0, application->Read(&byte, 1)) << "closed";
}

}  // namespace
}  // namespace vantrel
