// The link over protocol 1: write scheduling, measurements and statistics.
#include <errno.h>
#include <string.h>
#include <sys/time.h>

#include <string>

#include "common/log.h"
#include "link/bluetooth_socket.h"

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

// Of the bytes that were requested, not those that moved, on purpose: rates of
// one request can then be compared. In KiB/s and single precision.
float GetRate(uint32_t bytes_requested, uint32_t start_time_ms) {
  const uint32_t elapsed_ms = GetTimeMillis() - start_time_ms;
  return static_cast<float>(bytes_requested) * 0.0009765625f /
         (static_cast<float>(elapsed_ms) / 1000.0f);
}

}  // namespace

void BluetoothSocket::AddToWriteBuffer(const PacketBytes& packet) {
  if (packet.Empty()) {
    LOGD("[B] Ignoring empty packet");
    return;
  }
  WriteBuffer& buffer = output_.GetBuffer();
  const bool was_empty = buffer.IsEmpty();
  buffer.Append(std::string(packet.AsBytes(), packet.Length()));
  uid_usage_.AddTxBytes(packet.Uid(),
                        static_cast<unsigned int>(packet.Length()));
  output_.OnAppended(was_empty);
}

void BluetoothSocket::Send(const std::string& message, uint32_t uid) {
  AddToWriteBuffer(PacketBytes(message.data(), message.size(), uid));
}

void BluetoothSocket::OnWriteReady() {
  bool keep_writing = false;
  if (!QueueStreamData()) {
    keep_writing = true;
  } else if (!output_.IsCongested() && !pushes_.empty()) {
    QueuePushData();
    keep_writing = true;
  }
  output_.DrainAndRest(keep_writing);
}

bool BluetoothSocket::QueueStreamData() {
  do {
    if (output_.IsCongested()) return false;
  } while (QueueStreamDataPass());
  return true;
}

// Takes at most one chunk from each stream, so that busy streams share the
// link in turns. Returns whether any stream was handled.
bool BluetoothSocket::QueueStreamDataPass() {
  bool handled = false;
  for (auto next = streams_.begin(); next != streams_.end();) {
    // Step first: closing the stream removes its entry.
    TcpConduitDelegate* const conduit = (next++)->second;
    if (!conduit->HasBuffer()) continue;
    handled = true;
    std::string chunk;
    const bool has_chunk = conduit->GetNextBuffer(&chunk);
    const unsigned int id = conduit->GetId();
    const unsigned int uid = conduit->GetUid();
    if (!has_chunk) {
      CloseTcpStream(id, uid);
      continue;
    }
    const std::string header = v1::TcpData(id, chunk.size());
    AddToWriteBuffer(PacketBytes(header.data(), header.size(), chunk, uid));
  }
  return handled;
}

void BluetoothSocket::QueuePushData() {
  for (auto next = pushes_.begin(); next != pushes_.end();) {
    const auto push = next++;
    if (WritePushData(push->first, push->second)) continue;
    LOGD("[B] Push %u completed with an approx tx rate of %.2f kB/s",
         static_cast<unsigned int>(push->first),
         GetRate(push->second.bytes_requested, push->second.start_time_ms));
    pushes_.erase(push);
  }
}

bool BluetoothSocket::WritePushData(int id, push_state_t& state) {
  const uint32_t remaining = state.bytes_requested - state.bytes_sent;
  const bool is_full_chunk = remaining >= kPushChunkBytes;
  if (is_full_chunk && push_filler_.empty()) {
    push_filler_.assign(kPushChunkBytes, 'a');
  }
  const std::string chunk =
      is_full_chunk ? push_filler_ : std::string(remaining, 'a');
  const std::string header =
      v1::TransferData(TYPE_PUSH_DATA, static_cast<uint32_t>(id), chunk.size());
  AddToWriteBuffer(PacketBytes(header.data(), header.size(), chunk));
  state.bytes_sent += static_cast<uint32_t>(chunk.size());
  return state.bytes_sent < state.bytes_requested;
}

void BluetoothSocket::Push(unsigned int bytes) {
  const int32_t id = next_push_id_;
  pushes_[id] = push_state_t{GetTimeMillis(), 0, bytes};
  Send(
      v1::TransferRequest(TYPE_PUSH_REQUEST, static_cast<uint32_t>(id), bytes));
  LOGD("[B] Starting push request %u for %zu bytes.",
       static_cast<unsigned int>(id), static_cast<size_t>(bytes));
  ++next_push_id_;
}

void BluetoothSocket::Pull(unsigned int bytes) {
  const int32_t id = next_pull_id_;
  pulls_[id] = pull_state_t{GetTimeMillis(), 0, bytes};
  Send(
      v1::TransferRequest(TYPE_PULL_REQUEST, static_cast<uint32_t>(id), bytes));
  LOGD("[B] Starting pull request %u for %zu bytes.",
       static_cast<unsigned int>(id), static_cast<size_t>(bytes));
  ++next_pull_id_;
}

void BluetoothSocket::HandlePullData(const char* data, size_t size) {
  const auto pull = pulls_.find(static_cast<int32_t>(v1::GetId(data)));
  if (pull == pulls_.end()) return;
  pull_state_t& state = pull->second;
  state.bytes_received +=
      static_cast<uint32_t>(size - v1::GetHeaderSize(TYPE_PULL_DATA));
  if (state.bytes_received < state.bytes_requested) return;
  LOGD("[B] Pull %u completed with an rx rate of %.2f kB/s",
       static_cast<unsigned int>(pull->first),
       GetRate(state.bytes_requested, state.start_time_ms));
  if (state.bytes_received > state.bytes_requested) {
    LOGE("[B] Received %zu more bytes than originally requested.",
         static_cast<size_t>(state.bytes_received - state.bytes_requested));
  }
  pulls_.erase(pull);
}

void BluetoothSocket::Ping() { Send(v1::PingEcho(GetTimeMillis())); }

void BluetoothSocket::HandlePingEcho(const char* data) {
  LOGD("[B] PING TIME (ms): %u", GetTimeMillis() - v1::GetPingTime(data));
}

void BluetoothSocket::GetTransferStats(MessageUidTransferStatsInfo* out) {
  if (uid_usage_.Empty()) {
    LOGD("uid usage empty");
    return;
  }
  for (auto it = uid_usage_.Begin(); it != uid_usage_.End(); ++it) {
    auto* const stats = out->add_uid_transfer_stats();
    stats->set_uid(it->first);
    stats->set_rx_bytes(it->second.rx_bytes);
    stats->set_tx_bytes(it->second.tx_bytes);
    uid_usage_since_boot_.AddRxAndTxBytes(it->first, it->second.rx_bytes,
                                          it->second.tx_bytes);
  }
  uid_usage_.Clear();
}

void BluetoothSocket::Dump(std::stringstream& out) const {
  out << "Bluetooth socket state:" << std::endl;
  output_.Dump(out, rx_bytes_);
  out << std::endl;
  streams_.Dump(out);
  out << "UID usage since last transfer stats request:" << std::endl;
  uid_usage_.Dump(out);
  out << "UID usage since vantrel boot (excluding usage since last stats "
         "request):"
      << std::endl;
  uid_usage_since_boot_.Dump(out);
}

}  // namespace vantrel
