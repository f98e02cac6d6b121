// A pass of the loop over N descriptors, of which one or all are ready. The
// bare poll() over as many stands beside: what is more than that is the loop's.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <memory>
#include <vector>

#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// Ready for reading forever, or never.
class Entry : public Socket {
 public:
  Entry(Reactor& reactor, bool is_ready)
      : Socket(eventfd(is_ready ? 1 : 0, EFD_CLOEXEC)), reactor_(reactor) {
    reactor_.Register(*this, Reactor::kRead);
  }
  ~Entry() override { reactor_.Unregister(*this, Reactor::kRead); }

 private:
  Reactor& reactor_;
};

// Counts the passes, and ends the loop when enough are measured.
class Pacer : public Socket {
 public:
  Pacer(Reactor& reactor, benchmark::State& state)
      : Socket(eventfd(1, EFD_CLOEXEC)), reactor_(reactor), state_(state) {
    reactor_.Register(*this, Reactor::kRead);
  }
  ~Pacer() override { reactor_.Unregister(*this, Reactor::kRead); }
  void OnReadReady() override {
    if (!state_.KeepRunning()) reactor_.Stop();
  }

 private:
  Reactor& reactor_;
  benchmark::State& state_;
};

std::vector<std::unique_ptr<Entry>> MakeEntries(Reactor& reactor,
                                                const benchmark::State& state) {
  std::vector<std::unique_ptr<Entry>> entries;
  for (int64_t i = 0; i < state.range(0); ++i) {
    entries.push_back(std::make_unique<Entry>(reactor, state.range(1) != 0));
  }
  return entries;
}

void ReactorPass(benchmark::State& state) {
  Reactor reactor;
  const auto entries = MakeEntries(reactor, state);
  const Pacer pacer(reactor, state);
  StopCatcher stop;
  reactor.Start();
}

void PollAlone(benchmark::State& state) {
  Reactor reactor;
  const auto entries = MakeEntries(reactor, state);
  const Entry ready(reactor, true);
  std::vector<pollfd> descriptors;
  for (const auto& entry : entries) {
    descriptors.push_back({entry->GetFd(), POLLIN, 0});
  }
  descriptors.push_back({ready.GetFd(), POLLIN, 0});
  while (state.KeepRunning()) poll(descriptors.data(), descriptors.size(), -1);
}

void WithEntries(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"entries", "ready"})
      ->ArgsProduct({{0, 10, 100, 1000}, {0, 1}});
}
BENCHMARK(ReactorPass)->Apply(WithEntries);
BENCHMARK(PollAlone)->Apply(WithEntries);

}  // namespace
}  // namespace vantrel
