// What waits for a link: flows of both kinds come, go and change in any order,
// also while they are asked, and time passes. No byte is lost, doubled or out
// of its order but what the scheduler counts as dropped, of a queue that is
// late never the last message, and no flow is passed over for long.
#include <algorithm>
#include <array>
#include <memory>
#include <string>

#include "companion/flow_scheduler.h"
#include "fuzz/fuzz_input.h"

namespace vantrel {
namespace {

constexpr size_t kFlows = 4;
constexpr size_t kMaxMessage = 255;
constexpr size_t kMaxDatagram = 2 + 16 * 255;

// A flow with its bytes elsewhere, as a stream has them. Each message is its
// number, as many times as it has bytes.
class Stream : public FlowScheduler::Flow {
 public:
  Stream(FlowScheduler& scheduler, uint8_t name)
      : scheduler_(scheduler), name_(name) {}
  ~Stream() override { scheduler_.Remove(this); }
  bool TakeMessage(size_t max_payload, std::string* out) override {
    if (leaves_) {
      scheduler_.Remove(this);
      left = 0;
      return false;
    }
    const size_t size = std::min({left, max_payload, kMaxMessage});
    out->append(size, static_cast<char>(name_));
    left -= size;
    return size > 0;
  }
  void LeaveWhenAsked() { leaves_ = true; }

  size_t left = 0;

 private:
  FlowScheduler& scheduler_;
  const uint8_t name_;
  bool leaves_ = false;
};

// A flow whose messages the scheduler keeps.
class Datagrams : public FlowScheduler::QueuedFlow {
 private:
  void OnTaken(const message_t&) override {}
  void OnDropped(const message_t&) override {}
};

// Each message is numbered.
struct queue_t {
  Datagrams flow;
  uint8_t last_in = 0;
  uint8_t last_out = 0;
};

class Script {
 public:
  ~Script() {
    for (auto& queue : queues_) scheduler_.Remove(&queue.flow);
    FUZZ_CHECK(scheduler_.GetQueuedBytes() == 0);
  }

  void Step(FuzzInput* input) {
    const uint8_t step = input->TakeU8();
    const uint8_t argument = input->TakeU8();
    const size_t which = (step >> 4) % kFlows;
    auto& stream = streams_[which];
    switch (step & 7) {
      case 0:
        if (stream == nullptr) {
          stream = std::make_unique<Stream>(scheduler_,
                                            static_cast<uint8_t>('a' + which));
        }
        stream->left += argument;
        scheduler_.Activate(stream.get(), GetGroup(which));
        break;
      case 1:
        stream.reset();
        break;
      case 2:
        if (stream == nullptr) break;
        if (argument % 2 == 0) {
          stream->LeaveWhenAsked();
        } else {
          scheduler_.Resume(stream.get(), GetGroup(argument / 2));
        }
        break;
      case 3:
        Queue(which, argument);
        break;
      case 4:
        Forget(which);
        break;
      case 5:
        for (int i = 0; i < argument % 16; ++i) {
          now_ += std::chrono::milliseconds(argument / 16);
          TakeOne();
        }
        break;
      case 6:
        scheduler_.SetQuantum(argument + size_t{1});
        break;
      case 7:
        limit_ = argument * size_t{256};
        scheduler_.SetQueueLimit(limit_);
        break;
    }
  }

  // Ends: nothing is left that could be had.
  void Finish() {
    size_t takes = 0;
    while (TakeOne()) FUZZ_CHECK(++takes < 1'000'000);
    FUZZ_CHECK(scheduler_.GetQueuedBytes() == 0 && in_ == out_);
    for (const auto& stream : streams_) {
      FUZZ_CHECK(stream == nullptr || stream->left == 0);
    }
  }

 private:
  FlowScheduler::Group* GetGroup(size_t number) {
    return &groups_[number % groups_.size()];
  }
  // 'A' + flow, its number, filler.
  void Queue(size_t which, size_t filler) {
    queue_t& queue = queues_[which];
    std::string message = {static_cast<char>('A' + which),
                           static_cast<char>(++queue.last_in)};
    message.append(16 * filler, '.');
    in_ += message.size();
    const size_t before = scheduler_.GetQueuedBytes();
    const uint64_t drops = scheduler_.GetDropCount();
    scheduler_.Queue(&queue.flow, GetGroup(which),
                     {message, now_, message.size()});
    // What was dropped is of no flow that we know: only their sum is.
    const size_t dropped =
        before + message.size() - scheduler_.GetQueuedBytes();
    FUZZ_CHECK((dropped == 0) == (drops == scheduler_.GetDropCount()));
    out_ += dropped;
    FUZZ_CHECK(scheduler_.GetQueuedBytes() <= std::max(limit_, kMaxDatagram));
  }
  void Forget(size_t which) {
    const size_t before = scheduler_.GetQueuedBytes();
    scheduler_.Remove(&queues_[which].flow);
    out_ += before - scheduler_.GetQueuedBytes();
  }
  bool TakeOne() {
    std::string message;
    const size_t before = scheduler_.GetQueuedBytes();
    const uint64_t drops = scheduler_.GetDropCount();
    const bool has_taken = scheduler_.Take(&message, now_);
    FUZZ_CHECK(has_taken == !message.empty());
    FUZZ_CHECK(has_taken || before == 0);
    if (!has_taken) return false;
    const auto which = static_cast<size_t>(message[0] - 'A');
    if (which >= kFlows) {
      FUZZ_CHECK(before == scheduler_.GetQueuedBytes());
      return true;
    }
    const size_t gone = before - scheduler_.GetQueuedBytes();
    FUZZ_CHECK((gone == message.size()) ==
               (drops == scheduler_.GetDropCount()));
    out_ += gone;
    queue_t& queue = queues_[which];
    // In order: it lies behind the last one and not behind what was queued.
    const auto number = static_cast<uint8_t>(message[1]);
    FUZZ_CHECK(static_cast<uint8_t>(number - queue.last_out) <=
                   static_cast<uint8_t>(queue.last_in - queue.last_out) &&
               number != queue.last_out);
    queue.last_out = number;
    return true;
  }

  FlowScheduler scheduler_;
  std::array<FlowScheduler::Group, 4> groups_{
      FlowScheduler::Group(Priority::kNormal),
      FlowScheduler::Group(Priority::kNormal),
      FlowScheduler::Group(Priority::kLow),
      FlowScheduler::Group(Priority::kHigh)};
  std::array<std::unique_ptr<Stream>, kFlows> streams_;
  std::array<queue_t, kFlows> queues_;
  SteadyTime now_{};
  size_t limit_ = 64 * size_t{1024};
  size_t in_ = 0;   // bytes of datagrams queued
  size_t out_ = 0;  // taken, dropped or forgotten
};

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vantrel::FuzzInput input(data, size);
  vantrel::Script script;
  // Fewer steps than a number has values.
  for (int i = 0; i < 250 && !input.IsEmpty(); ++i) script.Step(&input);
  script.Finish();
  return 0;
}
