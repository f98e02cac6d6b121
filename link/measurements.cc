#include "link/measurements.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>

#include <utility>

#include "common/log.h"
#include "common/log_texts.h"
#include "link/v1_wire.h"

namespace vantrel {
namespace {

constexpr size_t kPushChunkBytes = v1::kMaxPayloadBytes;

// Wall-clock milliseconds, modulo 2^32; 0 when there is no clock.
uint32_t GetTimeMillis() {
  timeval now;
  if (gettimeofday(&now, nullptr) == -1) {
    LOGE("gettimeofday failed: %s", strerror(errno));
    return 0;
  }
  return static_cast<uint32_t>(now.tv_sec) * 1000 +
         static_cast<uint32_t>(now.tv_usec / 1000);
}

// Of the bytes that were requested, not those that moved; kept for
// compatibility. In KiB/s and single precision.
float GetRate(uint32_t bytes_requested, uint32_t start_time_ms) {
  const uint32_t elapsed_ms = GetTimeMillis() - start_time_ms;
  return static_cast<float>(bytes_requested) * 0.0009765625f /
         (static_cast<float>(elapsed_ms) / 1000.0f);
}

}  // namespace

Measurements::Measurements(std::function<void(PacketBytes)> send)
    : send_(std::move(send)) {}

void Measurements::Ping() { Send(v1::PingEcho(GetTimeMillis())); }

void Measurements::HandlePingEcho(const char* message) {
  LOGD(VANTREL_TEXT_PING_TIME "%u", GetTimeMillis() - v1::GetPingTime(message));
}

void Measurements::Pull(uint32_t bytes) {
  const int32_t id = next_pull_id_;
  pulls_[id] = pull_state_t{GetTimeMillis(), 0, bytes};
  Send(
      v1::TransferRequest(TYPE_PULL_REQUEST, static_cast<uint32_t>(id), bytes));
  LOGD(VANTREL_TEXT_PULL_STARTED "%u for %zu bytes.", static_cast<uint32_t>(id),
       static_cast<size_t>(bytes));
  ++next_pull_id_;
}

void Measurements::HandlePullData(const char* message, size_t size) {
  const auto pull = pulls_.find(static_cast<int32_t>(v1::GetId(message)));
  if (pull == pulls_.end()) return;
  pull_state_t& state = pull->second;
  state.bytes_received +=
      static_cast<uint32_t>(size - v1::GetHeaderSize(TYPE_PULL_DATA));
  if (state.bytes_received < state.bytes_requested) return;
  LOGD(
      VANTREL_TEXT_PULL "%u" VANTREL_TEXT_PULL_COMPLETED "%.2f kB/s",
      static_cast<uint32_t>(pull->first),
      static_cast<double>(GetRate(state.bytes_requested, state.start_time_ms)));
  if (state.bytes_received > state.bytes_requested) {
    LOGE("[B] Received %zu more bytes than originally requested.",
         static_cast<size_t>(state.bytes_received - state.bytes_requested));
  }
  pulls_.erase(pull);
}

void Measurements::Push(uint32_t bytes) {
  const int32_t id = next_push_id_;
  pushes_[id] = push_state_t{GetTimeMillis(), 0, bytes};
  Send(
      v1::TransferRequest(TYPE_PUSH_REQUEST, static_cast<uint32_t>(id), bytes));
  LOGD(VANTREL_TEXT_PUSH_STARTED "%u for %zu bytes.", static_cast<uint32_t>(id),
       static_cast<size_t>(bytes));
  ++next_push_id_;
}

void Measurements::QueuePushData() {
  for (auto next = pushes_.begin(); next != pushes_.end();) {
    const auto push = next++;
    if (WritePushData(push->first, push->second)) continue;
    LOGD(VANTREL_TEXT_PUSH "%u" VANTREL_TEXT_PUSH_COMPLETED "%.2f kB/s",
         static_cast<uint32_t>(push->first),
         static_cast<double>(GetRate(push->second.bytes_requested,
                                     push->second.start_time_ms)));
    pushes_.erase(push);
  }
}

bool Measurements::WritePushData(int32_t id, push_state_t& state) {
  const uint32_t remaining = state.bytes_requested - state.bytes_sent;
  const bool is_full_chunk = remaining >= kPushChunkBytes;
  if (is_full_chunk && push_filler_.empty()) {
    push_filler_.assign(kPushChunkBytes, 'a');
  }
  const std::string chunk =
      is_full_chunk ? push_filler_ : std::string(remaining, 'a');
  const std::string header =
      v1::TransferData(TYPE_PUSH_DATA, static_cast<uint32_t>(id), chunk.size());
  send_(PacketBytes(header, chunk));
  state.bytes_sent += static_cast<uint32_t>(chunk.size());
  return state.bytes_sent < state.bytes_requested;
}

}  // namespace vantrel
