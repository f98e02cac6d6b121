#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "common/host_and_port.h"
#include "companion/application.h"
#include "companion/byte_budget.h"
#include "companion/flow_policy.h"
#include "companion/flow_scheduler.h"
#include "companion/link_parts.h"
#include "companion/rate_limits.h"
#include "support/descriptor.h"

namespace vantrel {

// One TCP connection to a real remote, on behalf of an application of the
// device. Its owner destroys it, at the latest in OnStreamOver().
//
// While the device has the stream open, what the remote sends stays in the
// socket until the link's scheduler asks for it, so that a remote that sends
// faster than the link carries is slowed down by its own TCP. Finish() ends
// that: from then on the stream only delivers what it holds, and drops whatever
// the remote still sends.
class RemoteStream final : public FlowScheduler::Flow,
                           public UploadScheduler::Flow::Owner {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // As UploadScheduler::Flow::Owner has it.
    virtual void OnAcknowledge(RemoteStream& stream, size_t count) = 0;
    // The remote has closed the connection. The stream may be finished.
    virtual void OnRemoteEnded(RemoteStream& stream) = 0;
    // The connection could not be made, has failed or, after Finish(), is done
    // with. The stream may be destroyed.
    virtual void OnStreamOver(RemoteStream& stream) = 0;
  };

  // The device's credit: more writes than this never wait in a stream.
  static constexpr size_t kMaxUnacknowledgedWrites =
      UploadScheduler::Flow::kCredit;
  // What a finishing stream reads and drops.
  static constexpr size_t kMaxDiscardedBytes = 1 << 20;

  // |held| counts the bytes that wait for the remote. |application| is whose it
  // is.
  RemoteStream(const link_parts_t& link, Owner& owner, ByteBudget& held,
               uint32_t id, const HostAndPort& remote,
               Application& application);
  ~RemoteStream() override;

  // Begins to connect to |target|, which for the device stays |remote|. False
  // when that fails at once; the reason is logged.
  [[nodiscard]] bool Connect(const HostAndPort& target);

  uint32_t GetId() const { return id_; }
  const HostAndPort& GetRemote() const { return remote_; }
  Application& GetApplication() const { return application_; }
  SteadyTime GetBegin() const { return membership_.GetBegin(); }
  // Payload, as application_counts_t has it.
  uint64_t GetBytesToDevice() const { return bytes_to_device_; }
  uint64_t GetBytesFromDevice() const { return bytes_from_device_; }
  bool IsFinishing() const { return is_finishing_; }

  // From now on; a new stream has the policy of those that no rule names. It
  // may have its turn: link_parts_t::on_waiting is to be called.
  void SetPolicy(const flow_policy_t& policy);
  // TrafficRules::GetEdition() when it was judged; 0: it is to be judged again.
  uint32_t GetRulesEdition() const { return rules_edition_; }
  void SetRulesEdition(uint32_t edition) { rules_edition_ = edition; }
  // Whether no write of the device waits for the remote.
  bool IsDelivered() const { return queue_.empty(); }
  // Takes one write of the device; Flush() hands it on. False when the device
  // had no credit for it; nothing is taken then.
  [[nodiscard]] bool Write(std::string bytes);
  // Hands to the kernel what it takes of the writes that wait, all in one call.
  // What it does not take follows when it does.
  void Flush();
  bool TakeMessage(size_t max_payload, std::string* out) override;
  void OnAcknowledge(size_t count) override;
  // Delivers what is held, tells the remote that nothing follows and waits for
  // its end, so that no byte is lost to a reset. Over when that is done, when a
  // connection without progress has seen |max_idle_ticks| ticks, or when the
  // remote goes on sending what nobody wants.
  void Finish(int max_idle_ticks);
  // Once a second for a finishing stream. True: the stream is overdue.
  [[nodiscard]] bool OnTick() { return ++idle_ticks_ >= max_idle_ticks_; }

 private:
  void OnReadable();  // may destroy this
  FlowScheduler::Group* GetGroup() const {
    return &application_.GetGroup(priority_);
  }
  void OnWritable();  // may destroy this
  // False when the connection failed or is not allowed any more; the reason is
  // logged.
  bool CompleteConnect();
  void LogConnectFailure(int error);
  // As many bytes of the queue as the socket takes now. False when the remote
  // takes no more for good.
  bool WriteSome(size_t* count);
  // How many writes were completed. False as above.
  bool WriteQueued(size_t* count);
  void DropQueued();
  void OnWriteFailure();  // may destroy this
  void ReadAndDiscard();  // may destroy this

  const link_parts_t& link_;
  Owner& owner_;
  ByteBudget& held_;
  const uint32_t id_;
  const HostAndPort remote_;
  Application& application_;
  Application::Stream membership_;
  const uint32_t edition_;  // of where its bytes go
  const SocketPool::Place place_;
  std::unique_ptr<Descriptor> socket_;  // null until Connect()
  // No deque, which has half a kB at once: they are few, and there may be many
  // thousand streams.
  std::vector<std::string> queue_;
  size_t front_offset_ = 0;  // bytes of the first write that are delivered
  bool is_connected_ = false;
  bool has_write_failed_ = false;
  bool has_remote_ended_ = false;
  bool is_finishing_ = false;
  Priority priority_ = Priority::kNormal;
  RateLimits to_device_;
  UploadScheduler::Flow uploads_;
  std::vector<std::shared_ptr<QuotaCount>> quotas_;
  uint32_t rules_edition_ = 0;
  uint64_t bytes_to_device_ = 0;
  uint64_t bytes_from_device_ = 0;
  size_t discarded_bytes_ = 0;
  int max_idle_ticks_ = 0;
  int idle_ticks_ = 0;
};

}  // namespace vantrel
