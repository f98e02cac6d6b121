// The outgoing queue: messages appended and drained, for each of them one write
// to a device that takes it at once. The cost of that write alone stands
// beside.
#include <benchmark/benchmark.h>

#include <string>

#include "bench/null_device.h"
#include "reactor/write_buffer.h"

namespace vantrel {
namespace {

void WriteAlone(benchmark::State& state) {
  const NullDevice null;
  const std::string message(static_cast<size_t>(state.range(0)), 'x');
  while (state.KeepRunning()) null.Write(message.data(), message.size());
}

void AppendAndDrain(benchmark::State& state) {
  const NullDevice null;
  const std::string message(static_cast<size_t>(state.range(0)), 'x');
  const auto count = static_cast<size_t>(state.range(1));
  WriteBuffer buffer;
  while (state.KeepRunning()) {
    buffer.Append(message);
    if (buffer.GetQueuedItemCount() < count) continue;
    if (!buffer.Drain(null)) state.SkipWithError("not written");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(WriteAlone)->ArgName("bytes")->Arg(4103);
BENCHMARK(AppendAndDrain)
    ->ArgNames({"bytes", "queued"})
    ->ArgsProduct({{13, 4103}, {1, 16}});

}  // namespace
}  // namespace vantrel
