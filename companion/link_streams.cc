#include "companion/link_streams.h"

#include <assert.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "companion/turn_queue.h"

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
      on_idle_(std::move(on_idle)),
      review_(link.loop, [this] { link_.run([this] { ReviewSome(); }); }) {}

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
  auto stream = std::make_unique<RemoteStream>(link_, *this, held_, id, remote,
                                               application);
  RemoteStream& added = *stream;
  streams_.emplace(id, std::move(stream));
  Begin(&added, *target, true);
}

std::optional<verdict_t> LinkStreams::Judge(RemoteStream* stream,
                                            bool may_wait) {
  const Application& application = stream->GetApplication();
  flow_owner_t owner;
  owner.uid = application.GetUid();
  if (application.IsNameTold() || !may_wait) {
    owner.package = &application.GetPackageName();
  }
  stream->SetRulesEdition(link_.rules.GetEdition());
  return link_.rules.Judge(link_.peer, owner, stream->GetRemote(),
                           Transport::kTcp);
}

void LinkStreams::Begin(RemoteStream* stream, const HostAndPort& target,
                        bool may_wait) {
  const uint32_t id = stream->GetId();
  const auto verdict = Judge(stream, may_wait);
  if (!verdict) {
    unnamed_.emplace(id, unnamed_t{target});
    return;
  }
  if (!verdict->denial.empty()) return Deny(stream, verdict->denial);
  link_.log.Write(LogLevel::kInfo, LogKind::kStream,
                  "stream %u: connect to %s (%s)", id,
                  stream->GetRemote().ToString().c_str(),
                  stream->GetApplication().Describe().c_str());
  stream->SetPolicy(verdict->policy);
  if (!stream->Connect(target)) return Drop(stream);
  unnamed_.erase(id);
}

void LinkStreams::BeginUnnamed(uint32_t id) {
  const auto found = unnamed_.find(id);
  if (found == unnamed_.end()) return;
  const HostAndPort target = found->second.target;
  Begin(Find(id), target, false);
}

void LinkStreams::Deny(RemoteStream* stream, const std::string& denial) {
  Application& application = stream->GetApplication();
  link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                  "stream %u: %s (%s) denied by %s", stream->GetId(),
                  stream->GetRemote().ToString().c_str(),
                  application.Describe().c_str(), denial.c_str());
  ++application.GetCounts().streams_denied;
  Drop(stream);
}

void LinkStreams::OnOwnerNamed(const Application& owner) {
  for (const auto& entry : streams_) {
    if (&entry.second->GetApplication() == &owner) {
      entry.second->SetRulesEdition(0);
    }
  }
  Review();
}

// One that is under way goes on, and begins again afterwards: a device that
// renames its applications all the time keeps no stream from its turn.
void LinkStreams::Review() {
  if (streams_.empty()) return;
  if (review_from_) {
    is_review_stale_ = true;
    return;
  }
  review_from_ = 0;
  review_.WaitFor(SteadyTime::duration::zero());
}

void LinkStreams::ReviewSome() {
  const SteadyTime end = GetSteadyTime() + TurnQueue::kTurn;
  auto next = streams_.lower_bound(*review_from_);
  while (next != streams_.end()) {
    const uint32_t id = next->first;
    RemoteStream& stream = *next->second;
    if (stream.GetRulesEdition() == link_.rules.GetEdition()) {
      ++next;
      continue;
    }
    ReviewOne(&stream);
    next = streams_.upper_bound(id);  // others may have ended by it
    if (next != streams_.end() && GetSteadyTime() >= end) {
      review_from_ = next->first;
      return review_.WaitFor(SteadyTime::duration::zero());
    }
  }
  review_from_.reset();
  if (std::exchange(is_review_stale_, false)) Review();
  link_.on_waiting();
}

void LinkStreams::ReviewOne(RemoteStream* stream) {
  const auto unnamed = unnamed_.find(stream->GetId());
  if (unnamed != unnamed_.end()) {
    const HostAndPort target = unnamed->second.target;
    return Begin(stream, target, true);
  }
  const auto verdict = Judge(stream, false);
  if (!verdict->denial.empty()) return Deny(stream, verdict->denial);
  stream->SetPolicy(verdict->policy);
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
  BeginUnnamed(id);
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
  unnamed_.erase(id);
  streams_.erase(id);
  TellClosed(id);
}

void LinkStreams::FinishAll() {
  // They are no further than a connection that was not answered.
  for (const auto& entry : unnamed_) streams_.erase(entry.first);
  unnamed_.clear();
  while (!streams_.empty()) {
    Finish(streams_.begin()->second.get(), kFinishSecondsWithoutLink);
  }
  ReportIdle();
}

void LinkStreams::Clear() {
  streams_.clear();
  finishing_.clear();
  unnamed_.clear();
  unflushed_.clear();
}

void LinkStreams::ReportIdle() {
  if (GetCount() == 0) on_idle_();
}

void LinkStreams::OnTick() {
  for (auto& [id, unnamed] : unnamed_) {
    if (++unnamed.ticks < kMaxNameTicks) continue;
    // It does not seem to have one. No other stream of it waits for it again.
    Application& owner = Find(id)->GetApplication();
    if (owner.SetPackageName("")) OnOwnerNamed(owner);
  }
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
