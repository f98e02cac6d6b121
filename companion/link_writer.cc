#include "companion/link_writer.h"

#include <chrono>

#include "companion/link_protocol.h"
#include "support/steady_time.h"

namespace vantrel {
namespace {

// Before other links have their turn.
constexpr int kMaxWritesPerTurn = 8;

// Of the 40 ms that the next message may wait in all on its way to the device:
// one write, which is one turn of a flow or several short ones, and what the
// kernel holds; the rest is the device's. Above kMaxHold everything is fast
// enough.
constexpr std::chrono::milliseconds kTurnTime{8};
constexpr std::chrono::milliseconds kKernelTime{12};
constexpr size_t kMinTurn = 1024;
constexpr size_t kMinHold = 2048;
constexpr size_t kMaxHold = 64 * 1024;

// What all datagrams may wait before the next message is chosen: enough for the
// first burst of several senders, and for what they send until they have heard
// of a loss. It delays nobody but those that send too much.
constexpr std::chrono::milliseconds kQueueTime{500};
constexpr size_t kMinQueue = 32 * 1024;
constexpr size_t kMaxQueue = 512 * 1024;

}  // namespace

LinkWriter::LinkWriter(LinkSocket& socket, FlowScheduler& scheduler,
                       LinkDeadlines& deadlines)
    : socket_(socket), scheduler_(scheduler), deadlines_(deadlines) {
  AdaptToPace();
}

LinkWriter::Result LinkWriter::Write() {
  if (is_writing_ || is_blocked_) return Result::kWaiting;
  is_writing_ = true;
  std::optional<Result> result;
  for (int i = 0; i < kMaxWritesPerTurn && !result; ++i) result = WriteNext();
  is_writing_ = false;
  if (result) return *result;
  socket_.WaitWritable();
  return Result::kWaiting;
}

std::optional<LinkWriter::Result> LinkWriter::WriteNext() {
  if (GetUnwrittenBytes() == 0) {
    if (const auto result = Fill()) return result;
  }
  size_t count = 0;
  switch (
      socket_.Write(out_.data() + out_offset_, GetUnwrittenBytes(), &count)) {
    case LinkSocket::Result::kWait:
      return Block();
    case LinkSocket::Result::kEnded:
    case LinkSocket::Result::kFailed:
      return Result::kOver;
    case LinkSocket::Result::kDone:
      break;
  }
  pace_.OnWritten(count, GetSteadyTime());
  AdaptToPace();
  deadlines_.OnWritten();
  out_offset_ += count;
  return std::nullopt;
}

std::optional<LinkWriter::Result> LinkWriter::Fill() {
  out_.clear();
  out_offset_ = 0;
  // On a slow link nothing is taken before there is room: what is newer and
  // more urgent could still come first.
  const bool is_slow = quantum_ < LinkProtocol::kMaxStreamChunkBytes;
  if (is_slow && scheduler_.HasFlows() && !socket_.HasRoom()) return Block();
  // Not by another message, where that is more than a turn: nothing overtakes
  // what is written.
  const SteadyTime now = GetSteadyTime();
  while (out_.size() + quantum_ / 2 < write_size_ &&
         scheduler_.Take(&out_, now)) {
  }
  if (!out_.empty()) return std::nullopt;
  pace_.OnIdle();
  deadlines_.OnWritten();
  return Result::kDone;
}

LinkWriter::Result LinkWriter::Block() {
  const SteadyTime now = GetSteadyTime();
  is_blocked_ = true;
  pace_.OnBlocked(now);
  deadlines_.OnBlocked(now);
  AdaptToPace();
  socket_.WaitWritable();
  return Result::kWaiting;
}

void LinkWriter::AdaptToPace() {
  quantum_ =
      pace_.GetBytesIn(kTurnTime, kMinTurn, LinkProtocol::kMaxStreamChunkBytes);
  write_size_ = pace_.GetBytesIn(kTurnTime, kMinTurn, kMaxHold);
  scheduler_.SetQuantum(quantum_);
  scheduler_.SetQueueLimit(pace_.GetBytesIn(kQueueTime, kMinQueue, kMaxQueue));
  socket_.SetHold(pace_.GetBytesIn(kKernelTime, kMinHold, kMaxHold));
}

void LinkWriter::Clear() {
  std::string().swap(out_);
  out_offset_ = 0;
}

}  // namespace vantrel
