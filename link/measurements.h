#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <string>

#include "link/packet_bytes.h"

namespace vantrel {

// The measurements of a link over protocol 1 or 5 that the debug control port
// starts: round trip, and throughput from the companion (pull) and to it
// (push). The results are logged. Nothing times a measurement out. What they
// send is charged to nobody.
class Measurements {
 public:
  // |send| queues one message on the link.
  explicit Measurements(std::function<void(PacketBytes)> send);

  void Ping();
  void Pull(uint32_t bytes);
  void Push(uint32_t bytes);

  // Each takes the whole message at |message|.
  void HandlePingEcho(const char* message);
  void HandlePullData(const char* message, size_t size);

  bool IsPushing() const { return !pushes_.empty(); }
  // Queues one chunk for each running push.
  void QueuePushData();

 private:
  struct pull_state_t {
    uint32_t start_time_ms = 0;
    uint32_t bytes_received = 0;
    uint32_t bytes_requested = 0;
  };
  struct push_state_t {
    uint32_t start_time_ms = 0;
    uint32_t bytes_sent = 0;
    uint32_t bytes_requested = 0;
  };

  void Send(const std::string& message) { send_(PacketBytes(message)); }
  // Queues the next chunk. Returns whether bytes are left after it.
  bool WritePushData(int32_t id, push_state_t& state);

  const std::function<void(PacketBytes)> send_;
  int32_t next_pull_id_ = 0;
  std::map<int32_t, pull_state_t> pulls_;
  int32_t next_push_id_ = 0;
  std::map<int32_t, push_state_t> pushes_;
  std::string push_filler_;  // one full chunk, built on first need
};

}  // namespace vantrel
