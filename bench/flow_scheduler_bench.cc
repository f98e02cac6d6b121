// What it costs to decide what goes onto a link next: for each message, of N
// streams that never want for bytes, divided among applications. Beside it a
// stream that comes back with little each time.
#include <benchmark/benchmark.h>

#include <deque>
#include <string>

#include "companion/flow_scheduler.h"

namespace vantrel {
namespace {

constexpr size_t kMessageBytes = 4096;

class Source : public FlowScheduler::Flow {
 public:
  explicit Source(FlowScheduler& scheduler) : scheduler_(scheduler) {}
  ~Source() override { scheduler_.Remove(this); }
  bool TakeMessage(size_t, std::string* out) override {
    if (left == 0) return false;
    --left;
    out->append(kMessageBytes, 'x');
    return true;
  }
  size_t left = SIZE_MAX;

 private:
  FlowScheduler& scheduler_;
};

void TakeMessages(benchmark::State& state) {
  FlowScheduler scheduler;
  scheduler.SetQuantum(kMessageBytes);
  std::deque<FlowScheduler::Group> groups;
  for (int64_t i = 0; i < state.range(1); ++i) {
    groups.emplace_back(Priority::kNormal);
  }
  std::deque<Source> sources;
  for (size_t i = 0; i < static_cast<size_t>(state.range(0)); ++i) {
    scheduler.Activate(&sources.emplace_back(scheduler),
                       &groups[i % groups.size()]);
  }
  Source sparse(scheduler);
  std::string out;
  const SteadyTime now{};
  while (state.KeepRunning()) {
    sparse.left = 1;
    scheduler.Activate(&sparse, &groups[0]);
    for (int i = 0; i < 4; ++i) {
      if (!scheduler.Take(&out, now)) state.SkipWithError("nothing to take");
      out.clear();
    }
  }
}

BENCHMARK(TakeMessages)
    ->ArgNames({"streams", "applications"})
    ->ArgsProduct({{1, 32, 1000}, {1}})
    ->ArgsProduct({{32, 1000}, {32}});

}  // namespace
}  // namespace vantrel
