#include "companion/link_streams.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace vantrel {
namespace {

constexpr uint32_t kMaxPackageNames = 1024;
// Longer than any name that a device's packages may have.
constexpr size_t kMaxPackageNameBytes = 256;

}  // namespace

LinkStreams::LinkStreams(const LinkParts& link,
                         std::function<size_t()> get_max_streams,
                         size_t max_held_bytes, std::function<void()> on_excess,
                         std::function<void()> on_idle)
    : link_(link),
      get_max_streams_(std::move(get_max_streams)),
      held_(max_held_bytes),
      on_excess_(std::move(on_excess)),
      on_idle_(std::move(on_idle)),
      package_names_(kMaxPackageNames) {}

LinkStreams::~LinkStreams() = default;

void LinkStreams::Connect(uint32_t id, const HostAndPort& remote,
                          uint32_t uid) {
  if (Find(id) != nullptr) {
    link_.log.Write(LogLevel::kWarning, LogKind::kStream,
                    "stream %u: announced twice, ignored", id);
    return;
  }
  if (const char* const refusal = GetRefusal(remote, uid)) {
    link_.log.Write(
        LogLevel::kInfo, LogKind::kRefusal, "stream %u: %s (%s) refused: %s",
        id, remote.ToString().c_str(), DescribeOwner(uid).c_str(), refusal);
    return TellClosed(id);
  }
  link_.log.Write(LogLevel::kInfo, LogKind::kStream,
                  "stream %u: connect to %s (%s)", id,
                  remote.ToString().c_str(), DescribeOwner(uid).c_str());
  auto stream =
      std::make_unique<RemoteStream>(link_, *this, held_, id, remote, uid);
  if (!stream->Connect()) return TellClosed(id);
  streams_.emplace(id, std::move(stream));
}

const char* LinkStreams::GetRefusal(const HostAndPort& remote,
                                    uint32_t uid) const {
  if (remote.host.GetFamily() != AF_INET) return "not an IPv4 address";
  const size_t max_streams = get_max_streams_();
  if (GetCount() >= max_streams) return "too many streams";
  // The last quarter is for the others.
  if (GetCount() >= max_streams - max_streams / 4 && HasMost(uid)) {
    return "too many streams of one application";
  }
  return link_.policy.Allows(remote.host) ? nullptr : "not an allowed address";
}

bool LinkStreams::HasMost(uint32_t uid) const {
  const auto is_own = [uid](const auto& stream) {
    return stream->GetUid() == uid;
  };
  auto count = std::count_if(finishing_.begin(), finishing_.end(), is_own);
  for (const auto& entry : streams_) count += is_own(entry.second) ? 1 : 0;
  return static_cast<size_t>(count) * 2 >= GetCount();
}

void LinkStreams::Write(uint32_t id, const char* bytes, size_t length) {
  RemoteStream* const stream = Find(id);
  if (stream == nullptr) {
    link_.log.Write(LogLevel::kDebug, LogKind::kStream,
                    "stream %u: data for no such stream", id);
    return;
  }
  // Where an earlier write waits already, the socket is full.
  if (stream->IsDelivered()) unflushed_.push_back(id);
  if (!stream->Write(bytes, length)) {
    link_.log.Write(LogLevel::kWarning, LogKind::kStream,
                    "stream %u: closed: the device sent more than its credit "
                    "allows",
                    id);
    return Drop(stream);
  }
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

void LinkStreams::SetPackageName(uint32_t uid, std::string name) {
  name.resize(std::min(name.size(), kMaxPackageNameBytes));
  // Some devices repeat the name with every stream.
  const std::string* const known = package_names_.Find(uid);
  if (name.empty() || (known != nullptr && *known == name)) return;
  package_names_.Insert(uid, name);
  link_.log.Write(LogLevel::kInfo, LogKind::kDevice, "uid %u is %s", uid,
                  name.c_str());
}

std::string LinkStreams::DescribeOwner(uint32_t uid) {
  if (uid == kNobodyUid) return "uid unknown";
  const std::string* const name = package_names_.Find(uid);
  return "uid " + std::to_string(uid) + (name == nullptr ? "" : ", " + *name);
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
  finishing_.push_back(std::move(found->second));
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

void LinkStreams::ReportIdle() {
  if (GetCount() == 0) on_idle_();
}

void LinkStreams::OnTick() {
  const size_t count = GetCount();
  finishing_.remove_if([](const std::unique_ptr<RemoteStream>& stream) {
    return stream->OnTick();
  });
  if (GetCount() != count) ReportIdle();
}

void LinkStreams::OnWritesDelivered(RemoteStream& stream, size_t count) {
  link_.log.Write(LogLevel::kDebug, LogKind::kStream,
                  "stream %u: %zu writes delivered", stream.GetId(), count);
  for (size_t i = 0; i < count; ++i) {
    link_.protocol.PutWriteAck(link_.scheduler.GetControl(), stream.GetId());
  }
  link_.on_waiting();
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
    finishing_.remove_if([&stream](const std::unique_ptr<RemoteStream>& entry) {
      return entry.get() == &stream;
    });
  }
  ReportIdle();
}

}  // namespace vantrel
