#pragma once

#include <stdint.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/host_and_port.h"
#include "companion/application.h"
#include "companion/flow_policy.h"
#include "companion/flow_scheduler.h"
#include "companion/link_parts.h"
#include "companion/rate_limits.h"
#include "support/descriptor.h"

struct sock_extended_err;

namespace vantrel {

// The datagrams between one endpoint of an application and one remote: a
// connected socket, so that answers and ICMP errors find their flow by
// themselves. Answers and failures wait in the link's queue; when there are
// more than it holds, the oldest are lost, as in any network.
class DatagramFlow final : public FlowScheduler::QueuedFlow {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // An answer has come.
    virtual void OnFlowUsed(DatagramFlow& flow) = 0;
    // The network has refused a datagram.
    virtual void OnFlowFailed(DatagramFlow& flow) = 0;
  };

  // |target| is where the socket sends to, for the device the flow's remote
  // stays |remote|. Without |target| nothing is sent and every datagram fails.
  DatagramFlow(const link_parts_t& link, Owner& owner, const HostAndPort& local,
               const HostAndPort& remote,
               const std::optional<HostAndPort>& target);
  ~DatagramFlow() override;

  const HostAndPort& GetLocal() const { return local_; }
  const HostAndPort& GetRemote() const { return remote_; }

  const std::optional<HostAndPort>& GetTarget() const { return target_; }
  bool HasSocket() const { return socket_ != nullptr; }

  // From now on; a new flow has the policy of those that no rule names. What
  // waits may have its turn: link_parts_t::on_waiting is to be called.
  void SetPolicy(const flow_policy_t& policy);
  // Sends one datagram of the application, or drops it when a limit has been
  // reached. A failure waits in the scheduler afterwards.
  void Send(const std::string& payload);
  bool TakeMessage(size_t max_payload, std::string* out) override;

 private:
  void OnTaken(const message_t& message) override;
  void OnDropped(const message_t& message) override;
  FlowScheduler::Group* GetGroup() const {
    return &application_.GetGroup(priority_);
  }
  // Charges the limits. False when one of them has been reached.
  bool MaySend(size_t bytes);
  // False when the system refuses a socket; errno says why.
  bool Open();
  // 0, or the error with which the system refuses the datagram.
  int Transmit(const std::string& payload);
  void OnReadable();
  // False when there is nothing more for now.
  bool ReceiveOne();
  // Reports every request that the network could not deliver.
  void ReceiveErrors();
  void ReportError(const sock_extended_err& error, const std::string& quoted);
  void QueueFailure(const std::string& request);
  void LogDetail(const char* what, const char* more);

  const link_parts_t& link_;
  Owner& owner_;
  const HostAndPort local_;
  const HostAndPort remote_;
  const std::optional<HostAndPort> target_;
  const SocketPool::Place place_;
  Application& application_;
  Priority priority_ = Priority::kNormal;
  RateLimits to_device_;
  std::vector<std::shared_ptr<RateLimiter>> from_device_;
  std::vector<std::shared_ptr<QuotaCount>> quotas_;
  std::unique_ptr<Descriptor> socket_;
  std::string last_request_;
};

}  // namespace vantrel
