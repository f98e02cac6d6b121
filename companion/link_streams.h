#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/host_and_port.h"
#include "companion/byte_budget.h"
#include "companion/link_parts.h"
#include "companion/remote_stream.h"
#include "companion/traffic_rules.h"
#include "support/timer.h"

namespace vantrel {

// The TCP streams of one link.
class LinkStreams final : public RemoteStream::Owner {
 public:
  // All writes that wait for remotes have at most |max_held_bytes|; |on_excess|
  // is called when they have more. |on_idle| is called when the last stream is
  // gone.
  LinkStreams(const link_parts_t& link, size_t max_held_bytes,
              std::function<void()> on_excess, std::function<void()> on_idle);
  LinkStreams(const LinkStreams&) = delete;
  LinkStreams& operator=(const LinkStreams&) = delete;
  ~LinkStreams() override;

  void Connect(uint32_t id, const HostAndPort& remote, uint32_t uid);
  // Takes one write; Flush() hands those on that were not yet.
  void Write(uint32_t id, std::string bytes);
  void Flush();
  void Close(uint32_t id);
  // |owner| has a new name, or the device has told that it has none.
  void OnOwnerNamed(const Application& owner);
  // Judges open streams again that were judged by other rules, in short turns.
  void Review();

  // The link is gone: every stream only delivers its rest.
  void FinishAll();
  void Clear();   // without a word to anybody
  void OnTick();  // once a second
  // Calls |look|(const RemoteStream&) for each that the device has open.
  template <typename Look>
  void EachOpen(const Look& look) const {
    for (const auto& entry : streams_) look(*entry.second);
  }
  size_t GetCount() const { return streams_.size() + finishing_.size(); }
  size_t GetHeldBytes() const { return held_.GetUsed(); }

  void OnAcknowledge(RemoteStream& stream, size_t count) override;
  void OnRemoteEnded(RemoteStream& stream) override;
  void OnStreamOver(RemoteStream& stream) override;

 private:
  // How long a finishing stream may make no progress. A process that waits for
  // the last streams of its only link waits no longer than that either.
  static constexpr int kFinishSeconds = 10;
  static constexpr int kFinishSecondsWithoutLink = 2;
  // How long a stream waits for the name of its owner's package. The device
  // sends it right behind the first stream of an owner.
  static constexpr int kMaxNameTicks = 2;

  // A stream that a rule on names may allow or deny.
  struct unnamed_t {
    HostAndPort target;
    int ticks = 0;
  };

  // Null, or why a stream of |application| to |remote| is not opened; if it is,
  // |target| is where to.
  const char* GetRefusal(const HostAndPort& remote,
                         const Application& application,
                         std::optional<HostAndPort>* target) const;
  // Whether |application| has at least half of the streams.
  bool HasMost(const Application& application) const;
  // What the rules say of |stream|; none: it depends on a name for which it may
  // wait.
  std::optional<verdict_t> Judge(RemoteStream* stream, bool may_wait);
  // Connects to |target| what the rules allow, ends what they deny, and keeps
  // what waits for a name.
  void Begin(RemoteStream* stream, const HostAndPort& target, bool may_wait);
  // The same for one that has waited long enough. Nothing for others.
  void BeginUnnamed(uint32_t id);
  void ReviewSome();
  void ReviewOne(RemoteStream* stream);
  void Deny(RemoteStream* stream, const std::string& denial);
  RemoteStream* Find(uint32_t id) const;
  void TellClosed(uint32_t id);
  // Ends the stream for the device and lets it deliver its rest.
  void Finish(RemoteStream* stream, int max_idle_ticks);
  // Ends the stream at once; the device is told.
  void Drop(RemoteStream* stream);
  void ReportIdle();

  const link_parts_t& link_;
  ByteBudget held_;
  const std::function<void()> on_excess_;
  const std::function<void()> on_idle_;
  std::map<uint32_t, std::unique_ptr<RemoteStream>> streams_;
  // The ids of those that were given a write since Flush(). Some may be gone.
  std::vector<uint32_t> unflushed_;
  std::unordered_map<uint32_t, unnamed_t> unnamed_;  // by the stream's id
  // Where the review goes on; none: there is nothing to review.
  std::optional<uint32_t> review_from_;
  bool is_review_stale_ = false;  // it begins again when it is done
  Timer review_;
  // No longer known to the device, which may use their ids again.
  std::unordered_map<const RemoteStream*, std::unique_ptr<RemoteStream>>
      finishing_;
};

}  // namespace vantrel
