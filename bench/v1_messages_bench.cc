// Messages of protocol 1 with a stream's bytes: put together as the link does,
// and found in what the link has read.
#include <benchmark/benchmark.h>

#include <string>

#include "link/packet_bytes.h"
#include "link/v1_wire.h"

namespace vantrel {
namespace {

void BuildMessage(benchmark::State& state) {
  const std::string payload(static_cast<size_t>(state.range(0)), 'x');
  while (state.KeepRunning()) {
    PacketBytes packet(v1::TcpData(1234, payload.size()), payload, 10123);
    benchmark::DoNotOptimize(packet.TakeBytes());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void ParseMessage(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  const std::string message = v1::TcpData(1234, size) + std::string(size, 'x');
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(
        v1::GetMessageSize(message.data(), message.size()));
    benchmark::DoNotOptimize(v1::GetId(message.data()));
  }
}

BENCHMARK(BuildMessage)->ArgName("payload")->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(ParseMessage)->ArgName("payload")->Arg(4096);

}  // namespace
}  // namespace vantrel
