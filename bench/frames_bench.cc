// Frames of protocol 20 with a stream's bytes: built, and taken apart as they
// come from the link.
#include <benchmark/benchmark.h>
#include <stdint.h>

#include <algorithm>
#include <string>

#include "bench/null_device.h"
#include "link_v2/message_decoder.h"
#include "link_v2/message_encoder.h"
#include "reactor/write_buffer.h"

namespace vantrel {
namespace {

bool AppendFrame(WriteBuffer* out, const std::string& payload) {
  MessageEncoder message;
  message.SetAsTcpWrite()->set_stream_id(1234);
  return message.Write(out, payload);
}

// Into a queue that is emptied after 16 frames, as the link's is.
void EncodeFrame(benchmark::State& state) {
  const std::string payload(static_cast<size_t>(state.range(0)), 'x');
  const NullDevice null;
  WriteBuffer out;
  while (state.KeepRunning()) {
    bool good = AppendFrame(&out, payload);
    if (out.GetQueuedItemCount() == 16) good = out.Drain(null) && good;
    if (!good) state.SkipWithError("a frame was not built or written");
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

// The bytes come in pieces of at most 8192, as much as the link reads at once.
void DecodeFrame(benchmark::State& state) {
  constexpr size_t kPieceBytes = 8192;
  auto [fd, peer] = MakeSocketPair();
  WriteBuffer out;
  const std::string payload(static_cast<size_t>(state.range(0)), 'x');
  if (!AppendFrame(&out, payload) || !out.Drain(Socket(fd))) {
    state.SkipWithError("no frame");
    return;
  }
  const std::string frame = ReadAll(*peer);
  std::string frames;
  while (frames.size() < 8 * kPieceBytes) frames += frame;

  MessageDecoder decoder;
  MessageDecoder::message_t message;
  int64_t count = 0;
  size_t next = 0;
  while (state.KeepRunningBatch(
      static_cast<benchmark::IterationCount>(frames.size() / frame.size()))) {
    for (next = 0; next < frames.size();) {
      const size_t size = std::min({kPieceBytes, frames.size() - next,
                                    decoder.GetAvailableBufferSpace()});
      uint32_t consumed = 0;
      decoder.BufferData(frames.data() + next, static_cast<uint32_t>(size),
                         &consumed);
      next += consumed;
      while (decoder.GetAndClearMessage(&message)) ++count;
    }
  }
  if (count != state.iterations()) state.SkipWithError("frames are missing");
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

BENCHMARK(EncodeFrame)->ArgName("payload")->Arg(64)->Arg(512)->Arg(4096);
BENCHMARK(DecodeFrame)
    ->ArgName("payload")
    ->Arg(64)
    ->Arg(512)
    ->Arg(4096)
    ->Arg(16384);

}  // namespace
}  // namespace vantrel
