// The checksum of protocol 20: by size, and at addresses of every alignment.
#include <benchmark/benchmark.h>
#include <stdint.h>

#include <string>

#include "link_v2/message_encoder.h"

namespace vantrel {
namespace {

void Crc32c(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  const auto offset = static_cast<size_t>(state.range(1));
  const std::string bytes(size + offset, 'x');
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(MessageEncoder::ComputeCrc32c(
        bytes.data() + offset, static_cast<uint32_t>(size)));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Crc32c)
    ->ArgNames({"bytes", "offset"})
    ->ArgsProduct({{16, 64, 512, 1024, 4096, 16384}, {0}})
    ->Args({4096, 1})
    ->Args({4096, 7});

}  // namespace
}  // namespace vantrel
