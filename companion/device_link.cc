#include "companion/device_link.h"

#include <assert.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "companion/memory_reserve.h"
#include "companion/protocol_auto.h"
#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "link/connection_header.h"
#include "support/peer_socket.h"

// From the device: the socket is readable, or TurnQueue gives the link a turn.
// TakeTurn() reads; LinkProtocol::HandleNext() turns the bytes into our On...()
// functions, and those hand on to LinkStreams and DatagramFlows, which write to
// the remotes. What is left at the end of a turn waits in TurnQueue.
//
// To the device: control messages are appended to FlowScheduler::GetControl().
// A RemoteStream whose socket is readable calls Activate(), a DatagramFlow with
// an answer calls Queue(), and both then on_waiting of their link_parts_t,
// which is Pump(). LinkWriter takes out of the scheduler what goes next and
// writes it. When the socket takes no more, the rest follows in OnWritable().
//
// Every handler of the loop runs inside Run(): what it throws ends this link.

namespace vantrel {
namespace {

constexpr size_t kReadBytes = 64 * 1024;
// The device is not read while more answers than this wait for it: one that
// asks and does not read costs no more memory.
constexpr size_t kMaxControlBytes = 64 * 1024;
// Reads before other links have their turn.
constexpr int kMaxReadsPerTurn = 4;
constexpr size_t kMaxTransfers = 64;

std::unique_ptr<LinkProtocol> MakeProtocol(const companion_options_t& options,
                                           std::string* control) {
  if (options.protocol == LinkOpening::kAnyProtocol) {
    return std::make_unique<ProtocolAuto>(options.build_info, control);
  }
  if (options.protocol == 20) {
    return std::make_unique<ProtocolV2>(options.build_info, control);
  }
  return std::make_unique<ProtocolV1>(options.protocol, control);
}

}  // namespace

DeviceLink::DeviceLink(const shared_t& shared, UniqueFd fd, link_peer_t peer,
                       uint32_t id, std::function<void()> on_change)
    : options_(shared.options),
      peer_(std::move(peer)),
      log_(id),
      on_change_(std::move(on_change)),
      uploads_(shared.loop,
               [this] {
                 Run([this] {
                   uploads_.OnTime(GetSteadyTime());
                   Pump();
                 });
               }),
      protocol_(MakeProtocol(options_, scheduler_.GetControl())),
      parts_{shared.loop,
             *protocol_,
             scheduler_,
             uploads_,
             applications_,
             log_,
             shared.destinations,
             shared.rules,
             peer_,
             shared.sockets,
             [this] { Pump(); },
             [this](const std::function<void()>& work) { Run(work); },
             [this] { return flows_.FreeDescriptor(); }},
      streams_(
          parts_, options_.max_held_bytes,
          [this] { OnFailure("too many bytes wait for remotes"); },
          [this] { on_change_(); }),
      flows_(parts_),
      socket_(
          shared.loop, std::move(fd), [this] { Run([this] { OnReadable(); }); },
          [this] { Run([this] { OnWritable(); }); }),
      deadlines_(GetSteadyTime(), !protocol_->IsKnown()),
      writer_(socket_, scheduler_, deadlines_),
      turns_(shared.turns, [this] { Run([this] { TakeTurn(); }); }) {}

DeviceLink::~DeviceLink() { DropTransfers(); }

void DeviceLink::Run(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    OnException("out of memory");
  } catch (const std::exception& e) {
    OnException(e.what());
  }
}

// First everything is given back, which takes no memory. What the exception has
// left half done goes with it.
void DeviceLink::OnException(const char* what) {
  has_failed_ = true;
  state_ = State::kEnded;
  turns_.Leave();
  socket_.Close();
  flows_.Clear();
  streams_.Clear();
  DropTransfers();
  writer_.Clear();
  std::string().swap(*scheduler_.GetControl());
  KeepMemoryReserve();
  log_.Write(LogLevel::kError, LogKind::kLink, "link down: %s", what);
  try {
    on_change_();
  } catch (const std::exception&) {
    // Its owner looks at it each second.
  }
}

void DeviceLink::Start() {
  if (options_.send_header) {
    connection_header_t header;
    header.max_tx_size = options_.max_tx_size;
    scheduler_.GetControl()->append(EncodeConnectionHeader(header));
  }
  TakeTurn();
}

void DeviceLink::OnReadable() {
  if (!turns_.IsWaiting()) TakeTurn();
}

void DeviceLink::TakeTurn() {
  turn_end_ = GetSteadyTime() + TurnQueue::kTurn;
  HandleMessages();
  int reads = 0;
  while (!has_unhandled_ && reads < kMaxReadsPerTurn && ReadOnce()) ++reads;
  Pump();
  ReadOn();
}

bool DeviceLink::ReadOnce() {
  // What comes after the last message is read and dropped, so that closing
  // the socket resets nothing that is on its way to the device.
  char dropped[kReadBytes];
  const bool is_wanted = state_ == State::kOpen;
  const LinkProtocol::room_t room =
      is_wanted ? protocol_->GetRoom()
                : LinkProtocol::room_t{dropped, sizeof(dropped)};
  assert(room.size > 0);
  const size_t size = std::min(kReadBytes, room.size);
  size_t count = 0;
  if (!HasRead(socket_.Read(room.begin, size, &count))) return false;
  deadlines_.OnReceived(GetSteadyTime());
  if (is_wanted) {
    protocol_->OnFilled(count);
    has_unhandled_ = true;
    HandleMessages();
  }
  return count == size && !IsControlFull();
}

bool DeviceLink::HasRead(LinkSocket::Result result) {
  if (result == LinkSocket::Result::kEnded ||
      result == LinkSocket::Result::kFailed) {
    EndByPeer();
  }
  return result == LinkSocket::Result::kDone;
}

void DeviceLink::HandleMessages() {
  const LibraryLogScope scope(log_);
  is_handling_ = true;
  while (has_unhandled_ && GetSteadyTime() < turn_end_) {
    has_unhandled_ = state_ == State::kOpen && protocol_->HandleNext(*this);
  }
  streams_.Flush();
  is_handling_ = false;
}

bool DeviceLink::IsControlFull() {
  return scheduler_.GetControl()->size() > kMaxControlBytes;
}

void DeviceLink::ReadOn() {
  if (!IsUp() || IsControlFull()) return;
  has_unhandled_ ? turns_.Enter() : socket_.WaitReadable();
}

void DeviceLink::OnWritable() {
  writer_.OnWritable();
  Pump();
  ReadOn();
}

void DeviceLink::Pump() {
  if (is_handling_ || !IsUp()) return;
  switch (writer_.Write()) {
    case LinkWriter::Result::kDone:
      if (state_ == State::kClosing) socket_.EndWriting();
      break;
    case LinkWriter::Result::kWaiting:
      break;
    case LinkWriter::Result::kOver:
      EndByPeer();
      break;
  }
}

void DeviceLink::ReportNetwork() {
  if (!options_.network || !deadlines_.IsReady() || state_ != State::kOpen) {
    return;
  }
  log_.Write(LogLevel::kInfo, LogKind::kLink, "reporting active network %d%s",
             options_.network->id,
             options_.network->is_metered ? " (metered)" : "");
  protocol_->PutNetworkState(scheduler_.GetControl(), options_.network->id,
                             options_.network->is_metered);
  Pump();
}

void DeviceLink::ReviewRules() {
  if (!IsUp()) return;
  flows_.Review();
  streams_.Review();
  Pump();
}

void DeviceLink::Close(const std::string& reason) {
  if (state_ != State::kOpen) return;
  protocol_->PutTeardown(scheduler_.GetControl(), reason);
  BeginClosing(reason);
}

void DeviceLink::CloseAtOnce(const std::string& reason) {
  Close(reason);
  if (IsUp()) End(false, "closed by the companion");
}

void DeviceLink::OnFailure(const std::string& reason) {
  if (state_ != State::kOpen) return;
  has_failed_ = true;
  BeginClosing(reason);
}

void DeviceLink::BeginClosing(const std::string& reason) {
  log_.Write(LogLevel::kInfo, LogKind::kLink, "closing the link: %s",
             reason.c_str());
  state_ = State::kClosing;
  deadlines_.OnClosing(GetSteadyTime());
  StopFlows();
  Pump();
}

void DeviceLink::StopFlows() {
  streams_.FinishAll();
  flows_.Clear();
  DropTransfers();
}

void DeviceLink::DropTransfers() {
  for (const auto& transfer : transfers_) scheduler_.Remove(transfer.get());
  transfers_.clear();
}

void DeviceLink::EndByPeer() {
  const std::string reason = socket_.GetReason();
  const std::string why = reason.empty() ? "closed by the device" : reason;
  End(!reason.empty(), why + DescribeHandshake());
}

std::string DeviceLink::DescribeHandshake() const {
  if (deadlines_.IsReady() || state_ != State::kOpen) return "";
  const std::string fault = protocol_->GetOpening().GetFaultOfSilence();
  if (!fault.empty()) return "; " + fault;
  if (options_.send_header == deadlines_.HasReceived()) {
    return options_.send_header
               ? "; does a launcher relay the link, which needs no --header?"
               : "; does it wait for a connection header, see --header?";
  }
  return "";
}

void DeviceLink::End(bool by_error, const std::string& why) {
  log_.Write(LogLevel::kInfo, LogKind::kLink, "link down: %s", why.c_str());
  has_failed_ = has_failed_ || by_error;
  state_ = State::kEnded;
  turns_.Leave();
  socket_.Close();
  StopFlows();
  on_change_();
}

void DeviceLink::OnTick(SteadyTime now) {
  streams_.OnTick();
  flows_.OnTick();
  if (!IsUp()) return;
  if (HasHungUp(socket_.GetFd())) socket_.WaitReadable();
  if (const char* const excess = deadlines_.GetExcess(now)) {
    End(state_ == State::kOpen, excess + DescribeHandshake());
  }
}

bool DeviceLink::IsSilent(SteadyTime now) const {
  return state_ == State::kOpen && deadlines_.IsSilent(now);
}

size_t DeviceLink::GetWaitingBytes() const {
  return scheduler_.GetQueuedBytes() + writer_.GetUnwrittenBytes() +
         scheduler_.GetControl().size();
}

companion_state_t::device_t DeviceLink::Describe(SteadyTime now) const {
  using Phase = companion_state_t::device_t::Phase;
  companion_state_t::device_t device;
  device.id = log_.GetLinkId();
  device.link = peer_.text;
  const int protocol = protocol_->GetOpening().GetProtocol();
  if (protocol != LinkOpening::kAnyProtocol) {
    device.protocol = std::to_string(protocol);
  }
  device.phase = state_ != State::kOpen ? Phase::kClosing
                 : deadlines_.IsReady() ? Phase::kRunning
                                        : Phase::kConnecting;
  device.uptime_ms = ToMs(now - begin_);
  device.link_traffic = GetTraffic();
  device.pace = static_cast<uint64_t>(writer_.GetPace());
  device.waiting_bytes = GetWaitingBytes();
  return device;
}

void DeviceLink::LogState() {
  const size_t waiting = GetWaitingBytes();
  log_.Write(LogLevel::kInfo, LogKind::kState,
             "state: %s, %zu streams, %zu flows, %.0f bytes/s, %zu bytes "
             "(%.0f ms) wait for the device, %zu for remotes, %llu datagrams "
             "dropped",
             !IsUp()                ? "ended"
             : deadlines_.IsReady() ? "up"
                                    : "connecting",
             streams_.GetCount(), flows_.GetCount(), writer_.GetPace(), waiting,
             1e3 * static_cast<double>(waiting) / writer_.GetPace(),
             streams_.GetHeldBytes(),
             static_cast<unsigned long long>(scheduler_.GetDropCount()));
}

void DeviceLink::OnReady(const std::string& description) {
  log_.Write(LogLevel::kInfo, LogKind::kLink, "link up: %s",
             description.c_str());
  deadlines_.OnReady();
  ReportNetwork();
}

void DeviceLink::OnConnect(uint32_t stream_id, const HostAndPort& remote,
                           uint32_t uid) {
  streams_.Connect(stream_id, remote, uid);
}

void DeviceLink::OnData(uint32_t stream_id, std::string bytes) {
  streams_.Write(stream_id, std::move(bytes));
}

void DeviceLink::OnClose(uint32_t stream_id) { streams_.Close(stream_id); }

void DeviceLink::OnDatagram(const HostAndPort& local, const HostAndPort& remote,
                            const std::string& payload) {
  flows_.Send(local, remote, payload);
}

void DeviceLink::OnPackageName(uint32_t uid, const std::string& name) {
  if (uid == kNobodyUid) return;
  Application& application = applications_.Get(uid);
  // Some devices repeat the name with every stream.
  if (!application.SetPackageName(name)) return;
  streams_.OnOwnerNamed(application);
  if (application.GetPackageName().empty()) return;
  log_.Write(LogLevel::kInfo, LogKind::kDevice, "uid %u is %s", uid,
             application.GetPackageName().c_str());
}

void DeviceLink::OnTransfer(std::unique_ptr<FlowScheduler::Flow> transfer) {
  // The oldest is most likely over.
  if (transfers_.size() >= kMaxTransfers) {
    scheduler_.Remove(transfers_.front().get());
    transfers_.pop_front();
  }
  scheduler_.Activate(transfer.get(),
                      &applications_.GetUnknown().GetGroup(Priority::kNormal));
  transfers_.push_back(std::move(transfer));
}

void DeviceLink::OnNotice(const std::string& text) {
  log_.Write(LogLevel::kInfo, LogKind::kDevice, "%s", text.c_str());
}

void DeviceLink::OnUnexpected(const std::string& text) {
  log_.Write(LogLevel::kWarning, LogKind::kDevice,
             "unexpected from the device: %s", text.c_str());
}

}  // namespace vantrel
