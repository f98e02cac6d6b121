#include "reactor/reactor.h"

#include <gmock/gmock.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kNeither = static_cast<Reactor::EventType>(POLLPRI);

// What the handlers did, as "A read", and what the test wants done then.
struct Script {
  std::vector<std::string> calls;
  std::map<std::string, std::function<void()>> actions;

  void Run(const std::string& call) {
    calls.push_back(call);
    if (actions.count(call) != 0) actions[call]();
  }
};

// Readable and writable for ever.
class Probe : public Socket {
 public:
  Probe(const char* name, Script* script,
        std::pair<int, std::unique_ptr<Socket>> ends = MakeSocketPair())
      : Socket(ends.first),
        peer(std::move(ends.second)),
        name_(name),
        script_(script) {
    peer->Write("x", 1);
  }
  void OnReadReady() override { script_->Run(name_ + " read"); }
  void OnWriteReady() override { script_->Run(name_ + " write"); }

  std::unique_ptr<Socket> peer;

 private:
  const std::string name_;
  Script* const script_;
};

class ReactorTest : public ::testing::Test {
 protected:
  void Register(Probe& probe) {
    reactor_.Register(probe, Reactor::kRead);
    reactor_.Register(probe, Reactor::kWrite);
  }
  void Forget(Probe& probe) {
    reactor_.Unregister(probe, Reactor::kRead);
    reactor_.Unregister(probe, Reactor::kWrite);
  }
  std::string Interest(const Probe& probe) {
    std::string interest;
    if (reactor_.IsRegistered(probe, Reactor::kRead)) interest += 'R';
    if (reactor_.IsRegistered(probe, Reactor::kWrite)) interest += 'W';
    if (reactor_.IsRegistered(probe, kNeither)) interest += '?';
    return interest;
  }

  StopCatcher stop_;
  Reactor reactor_;
  Script script_;
  Probe a_{"A", &script_}, b_{"B", &script_}, c_{"C", &script_};
};

TEST_F(ReactorTest, KeepsOneEntryWithTheInterestAsked) {
  reactor_.Unregister(a_, Reactor::kRead);
  Register(a_);
  EXPECT_EQ("RW", Interest(a_));
  EXPECT_NE(0, fcntl(a_.GetFd(), F_GETFL) & O_NONBLOCK);
  reactor_.Unregister(a_, Reactor::kWrite);
  reactor_.Unregister(a_, kNeither);
  EXPECT_EQ("R", Interest(a_));
  reactor_.Unregister(a_, Reactor::kRead);
  EXPECT_EQ("", Interest(a_));
}

TEST_F(ReactorTest, DispatchesInOrderAndWritesBeforeReads) {
  b_.peer.reset();  // hung up, and interested in nothing: not called
  Register(a_);
  reactor_.Register(b_, kNeither);
  reactor_.Register(c_, Reactor::kRead);
  ASSERT_TRUE(RunPasses(reactor_, 2));
  EXPECT_THAT(script_.calls, ElementsAre("A write", "A read", "C read",
                                         "A write", "A read", "C read"));
}

// Entries behind an erased one move down by one, in the middle of a pass.
TEST_F(ReactorTest, HandlersMayErase) {
  const struct {
    const char* when;
    Probe& erased;
    std::vector<std::string> calls;
  } cases[] = {
      // What moves into the current place only reads.
      {"A write", a_, {"A write", "B read", "C write", "C read"}},
      // What moves into a passed place waits for the next pass.
      {"B read", a_, {"A write", "A read", "B write", "B read"}},
      // What is erased is not called.
      {"A read", b_, {"A write", "A read", "C write", "C read"}},
  };
  for (const auto& c : cases) {
    script_ = {};
    script_.actions[c.when] = [&] { Forget(c.erased); };
    for (Probe* probe : {&a_, &b_, &c_}) Register(*probe);
    ASSERT_TRUE(RunPasses(reactor_, 1));
    EXPECT_EQ(c.calls, script_.calls);
  }
}

TEST_F(ReactorTest, StopLetsTheCycleFinishAndTheLastEntryMayEraseItself) {
  Register(a_);
  Register(b_);
  script_.actions["A write"] = [&] { reactor_.Stop(); };
  script_.actions["B write"] = [&] { Forget(b_); };
  reactor_.Start();
  EXPECT_THAT(script_.calls, ElementsAre("A write", "A read", "B write"));
}

// The erased entry leaves one ready count over, which reaches the new one.
TEST_F(ReactorTest, ANewEntryWaitsForTheNextPass) {
  reactor_.Register(a_, Reactor::kRead);
  reactor_.Register(b_, Reactor::kRead);
  script_.actions["A read"] = [&] {
    Forget(b_);
    reactor_.Register(c_, Reactor::kRead);
  };
  ASSERT_TRUE(RunPasses(reactor_, 2));
  EXPECT_THAT(script_.calls, ElementsAre("A read", "A read", "C read"));
}

TEST_F(ReactorTest, ASignalEndsTheLoopBeforeItsCycleIsDispatched) {
  for (const int signal : {SIGTERM, SIGINT}) {
    Register(a_);
    raise(signal);
    reactor_.Start();
    EXPECT_THAT(script_.calls, IsEmpty());
    EXPECT_EQ("", Interest(a_));
    EXPECT_EQ(signal, stop_.TakeSignal()) << "it stays pending";
  }
}

}  // namespace
}  // namespace vantrel
