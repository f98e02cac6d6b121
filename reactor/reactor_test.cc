#include "reactor/reactor.h"

#include <gmock/gmock.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "common/seed_testing.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kNeither = static_cast<Reactor::EventType>(POLLPRI);

// What the handlers did, as "A read", and what the test wants done then.
class Script {
 public:
  std::vector<std::string> calls;
  std::map<std::string, std::function<void()>> actions;
  std::function<void()> on_call = [] {};

  void Run(const std::string& call) {
    calls.push_back(call);
    on_call();
    if (actions.count(call) != 0) actions[call]();
  }
};

// Readable and writable for ever.
class Probe : public Socket {
 public:
  Probe(const std::string& name, Script* script,
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

TEST_F(ReactorTest, StopLetsTheCycleFinishAndTheLastEntryMayEraseItself) {
  Register(a_);
  Register(b_);
  script_.actions["A write"] = [&] { reactor_.Stop(); };
  script_.actions["B write"] = [&] { Forget(b_); };
  reactor_.Start();
  EXPECT_THAT(script_.calls, ElementsAre("A write", "A read", "B write"));
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

// What a handler does: to which probe, and what.
struct deed_t {
  enum class Kind { kRegister, kUnregister, kBecomeReadable, kBecomeQuiet };
  Kind kind;
  size_t probe;
  Reactor::EventType type;
};

// The documents' rules for one loop: which handlers are called, given what each
// of them does. The last of |readable| stands for the pass counter.
class ReactorModel {
 public:
  ReactorModel(size_t probes, std::vector<deed_t> deeds)
      : readable_(probes + 1, true), deeds_(std::move(deeds)) {
    for (size_t probe = 0; probe <= probes; ++probe) {
      const bool is_counter = probe == probes;
      entries_.push_back({probe, is_counter ? POLLIN : POLLIN | POLLOUT, 0});
    }
  }
  std::vector<std::string> Run(int passes) {
    while (counted_ < passes) Cycle();
    return calls_;
  }

 private:
  struct entry_t {
    size_t probe;
    int interest;
    int ready;
  };

  void Cycle() {
    size_t left = 0;
    for (entry_t& entry : entries_) {
      entry.ready =
          entry.interest & (POLLOUT | (readable_[entry.probe] ? POLLIN : 0));
      if (entry.ready != 0) ++left;
    }
    for (size_t place = 0; left > 0 && place < entries_.size(); ++place) {
      if (entries_[place].ready == 0) continue;
      --left;
      if ((entries_[place].ready & POLLOUT) != 0) Call(place, " write");
      // Perhaps another entry's, which has moved here.
      if (place < entries_.size() && (entries_[place].ready & POLLIN) != 0) {
        Call(place, " read");
      }
    }
  }
  void Call(size_t place, const char* handler) {
    const size_t probe = entries_[place].probe;
    if (probe + 1 == readable_.size()) {
      ++counted_;
      return;
    }
    calls_.push_back(std::to_string(probe) + handler);
    if (calls_.size() <= deeds_.size()) Do(deeds_[calls_.size() - 1]);
  }
  void Do(const deed_t& deed) {
    const auto found =
        std::find_if(entries_.begin(), entries_.end(),
                     [&](const entry_t& e) { return e.probe == deed.probe; });
    if (deed.kind == deed_t::Kind::kRegister) {
      if (found == entries_.end()) {
        entries_.push_back({deed.probe, deed.type, 0});
      } else {
        found->interest |= deed.type;
      }
    } else if (deed.kind == deed_t::Kind::kUnregister) {
      if (found == entries_.end()) return;
      found->interest &= ~deed.type;
      if (found->interest == 0) entries_.erase(found);
    } else {
      readable_[deed.probe] = deed.kind == deed_t::Kind::kBecomeReadable;
    }
  }

  std::vector<bool> readable_;
  std::vector<entry_t> entries_;
  const std::vector<deed_t> deeds_;  // one for each call
  std::vector<std::string> calls_;
  int counted_ = 0;  // by the pass counter
};

TEST(ReactorModelTest, DispatchesAsTheModelWhateverHandlersDo) {
  constexpr size_t kProbes = 5;
  constexpr int kPasses = 12;
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + 200; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    std::vector<deed_t> deeds(80);
    for (deed_t& deed : deeds) {
      deed = {static_cast<deed_t::Kind>(random() % 4), random() % kProbes,
              random() % 2 == 0 ? Reactor::kRead : Reactor::kWrite};
    }
    Reactor reactor;
    Script script;
    std::vector<std::unique_ptr<Probe>> probes;
    script.on_call = [&] {
      if (script.calls.size() > deeds.size()) return;
      const deed_t& deed = deeds[script.calls.size() - 1];
      Probe& probe = *probes[deed.probe];
      char byte;
      switch (deed.kind) {
        case deed_t::Kind::kRegister:
          return reactor.Register(probe, deed.type);
        case deed_t::Kind::kUnregister:
          return reactor.Unregister(probe, deed.type);
        case deed_t::Kind::kBecomeReadable:
          probe.peer->Write("x", 1);
          return;
        case deed_t::Kind::kBecomeQuiet:
          while (recv(probe.GetFd(), &byte, 1, MSG_DONTWAIT) == 1) {
          }
      }
    };
    for (size_t i = 0; i < kProbes; ++i) {
      probes.push_back(std::make_unique<Probe>(std::to_string(i), &script));
      reactor.Register(*probes[i], Reactor::kRead);
      reactor.Register(*probes[i], Reactor::kWrite);
    }
    ASSERT_TRUE(RunPasses(reactor, kPasses));
    ASSERT_EQ(ReactorModel(kProbes, deeds).Run(kPasses), script.calls);
  }
}

}  // namespace
}  // namespace vantrel
