#include "companion/link_streams.h"

#include <assert.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace vantrel {
namespace {

// Handing more of them on at once would make a link's turn too long.
constexpr size_t kMaxUnflushed = 32;
// Closing thousands of connections at once would keep other links waiting.
constexpr int kMaxGivenUpPerTick = 512;

}  // namespace

LinkStreams::LinkStreams(const link_parts_t& link, size_t max_held_bytes,
                         std::function<void()> on_excess,
                         std::function<void()> on_idle)
    : link_(link),
      held_(max_held_bytes),
      on_excess_(std::move(on_excess)),
      on_idle_(std::move(on_idle)) {}

LinkStreams::~LinkStreams() = default;

void LinkStreams::Connect(uint32_t id, const HostAndPort& remote,
                          uint32_t uid) {
  if (Find(id) != nullptr) {
    link_.log.Write(LogLevel::kWarning, LogKind::kStream,
                    "stream %u: announced twice, ignored", id);
    return;
  }
  Application& application = link_.applications.Get(uid);
  std::optional<HostAndPort> target;
  if (const char* const refusal = GetRefusal(remote, application, &target)) {
    link_.log.Write(
        LogLevel::kInfo, LogKind::kRefusal, "stream %u: %s (%s) refused: %s",
        id, remote.ToString().c_str(), application.Describe().c_str(), refusal);
    return TellClosed(id);
  }
  link_.log.Write(LogLevel::kInfo, LogKind::kStream,
                  "stream %u: connect to %s (%s)", id,
                  remote.ToString().c_str(), application.Describe().c_str());
  auto stream = std::make_unique<RemoteStream>(link_, *this, held_, id, remote,
                                               application);
  if (!stream->Connect(*target)) return TellClosed(id);
  streams_.emplace(id, std::move(stream));
}

const char* LinkStreams::GetRefusal(const HostAndPort& remote,
                                    const Application& application,
                                    std::optional<HostAndPort>* target) const {
  if (remote.host.GetFamily() != AF_INET) return "not an IPv4 address";
  const size_t max_streams = link_.sockets.GetShare();
  if (GetCount() >= max_streams) return "too many streams";
  // The last quarter is for the others.
  if (GetCount() >= max_streams - max_streams / 4 && HasMost(application)) {
    return "too many streams of one application";
  }
  *target = link_.destinations.FindForStream(remote);
  return *target ? nullptr : "not an allowed address";
}

bool LinkStreams::HasMost(const Application& application) const {
  const size_t count = application.GetStreamCount();
  return count > 0 && count * 2 >= GetCount();
}

void LinkStreams::Write(uint32_t id, std::string bytes) {
  RemoteStream* const stream = Find(id);
  if (stream == nullptr) {
    link_.log.Write(LogLevel::kDebug, LogKind::kStream,
                    "stream %u: data for no such stream", id);
    return;
  }
  // Where an earlier write waits already, the socket is full.
  if (stream->IsDelivered()) unflushed_.push_back(id);
  if (!stream->Write(std::move(bytes))) {
    link_.log.Write(LogLevel::kWarning, LogKind::kStream,
                    "stream %u: closed: the device sent more than its credit "
                    "allows",
                    id);
    return Drop(stream);
  }
  if (unflushed_.size() >= kMaxUnflushed) Flush();
}

void LinkStreams::Flush() {
  for (const uint32_t id : unflushed_) {
    if (RemoteStream* const stream = Find(id)) stream->Flush();
  }
  unflushed_.clear();
  if (held_.IsExceeded()) on_excess_();
}

void LinkStreams::Close(uint32_t id) {
  RemoteStream* const stream = Find(id);
  link_.log.Write(
      LogLevel::kDebug, LogKind::kStream, "stream %u: %s", id,
      stream == nullptr ? "close of no such stream" : "closed by the device");
  if (stream != nullptr) Finish(stream, kFinishSeconds);
}

RemoteStream* LinkStreams::Find(uint32_t id) const {
  const auto found = streams_.find(id);
  return found == streams_.end() ? nullptr : found->second.get();
}

void LinkStreams::TellClosed(uint32_t id) {
  link_.protocol.PutClose(link_.scheduler.GetControl(), id);
  link_.on_waiting();
}

void LinkStreams::Finish(RemoteStream* stream, int max_idle_ticks) {
  const auto found = streams_.find(stream->GetId());
  assert(found != streams_.end() && found->second.get() == stream);
  finishing_.emplace(stream, std::move(found->second));
  streams_.erase(found);
  stream->Finish(max_idle_ticks);
}

void LinkStreams::Drop(RemoteStream* stream) {
  const uint32_t id = stream->GetId();
  streams_.erase(id);
  TellClosed(id);
}

void LinkStreams::FinishAll() {
  while (!streams_.empty()) {
    Finish(streams_.begin()->second.get(), kFinishSecondsWithoutLink);
  }
  ReportIdle();
}

void LinkStreams::Clear() {
  streams_.clear();
  finishing_.clear();
  unflushed_.clear();
}

void LinkStreams::ReportIdle() {
  if (GetCount() == 0) on_idle_();
}

void LinkStreams::OnTick() {
  const size_t count = GetCount();
  int given_up = 0;
  for (auto next = finishing_.begin(); next != finishing_.end();) {
    const auto entry = next++;
    if (!entry->second->OnTick() || given_up == kMaxGivenUpPerTick) continue;
    ++given_up;
    finishing_.erase(entry);
  }
  if (GetCount() != count) ReportIdle();
}

void LinkStreams::OnAcknowledge(RemoteStream& stream, size_t count) {
  link_.log.Write(LogLevel::kDebug, LogKind::kStream,
                  "stream %u: %zu writes acknowledged", stream.GetId(), count);
  for (size_t i = 0; i < count; ++i) {
    link_.protocol.PutWriteAck(link_.scheduler.GetControl(), stream.GetId());
  }
}

void LinkStreams::OnRemoteEnded(RemoteStream& stream) {
  const uint32_t id = stream.GetId();
  link_.log.Write(LogLevel::kDebug, LogKind::kStream,
                  "stream %u: closed by the remote", id);
  Finish(&stream, kFinishSeconds);
  TellClosed(id);
}

void LinkStreams::OnStreamOver(RemoteStream& stream) {
  if (!stream.IsFinishing()) {
    Drop(&stream);
  } else {
    finishing_.erase(&stream);
  }
  ReportIdle();
}

}  // namespace vantrel
