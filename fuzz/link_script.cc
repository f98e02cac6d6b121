#include "fuzz/link_script.h"

#include <stdint.h>
#include <sys/eventfd.h>

#include <vector>

#include "capture/original_destination_testing.h"
#include "capture/socket_table_path_testing.h"
#include "capture/tcp_server.h"
#include "capture/udp_server.h"
#include "common/monotonic_clock_testing.h"
#include "control/control_server.h"
#include "control/proxy_socket_delegate_impl.h"
#include "control/status_socket.h"
#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_network.h"
#include "link/bluetooth_socket.h"
#include "link/link_testing.h"
#include "link_v2/proxy_socket_v2.h"
#include "reactor/reactor_testing.h"
#include "tools/launch/status_reader.h"

namespace vantrel {
namespace {

constexpr size_t kMaxApplications = 6;
constexpr uint16_t kDatagramPort = 40000;
// Passes of the loop after the last step, for what is still under way.
constexpr int kLastPasses = 8;

const HostAndPort kRemotes[] = {
    HostAndPort::FromIPv4NetworkBytes(htonl(0xC6336401), htons(53)),
    HostAndPort::FromIPv4NetworkBytes(htonl(0xC6336402), htons(443)),
    HostAndPort::FromIPv4NetworkBytes(htonl(0xC6336402), htons(53)),
    HostAndPort()};

// The handshake as a sound companion answers it.
std::string HandshakeAck(int protocol) {
  if (protocol == 1) return "";
  if (protocol == 5) {
    return v1::Handshake(TYPE_HANDSHAKE_ACK, v1::kHandshakeVersion);
  }
  messages::Header header;
  header.set_type(messages::HANDSHAKE_ACK);
  header.mutable_handshake_ack()->set_version(kHandshakeVersionV2);
  return FuzzFrame(header.SerializeAsString(), "");
}

std::unique_ptr<ProxySocket> MakeLink(int protocol,
                                      ProxySocket::Delegate* delegate,
                                      Reactor& reactor) {
  if (protocol == 20) return std::make_unique<ProxySocketV2>(delegate, reactor);
  return std::make_unique<BluetoothSocket>(
      delegate, reactor,
      protocol == 5 ? BluetoothSocket::FLAG_ALL : BluetoothSocket::FLAG_NONE,
      [](Reactor& r, const HostAndPort& remote) {
        return new UdpConduit(r, remote);
      });
}

struct application_t {
  explicit application_t(const HostAndPort& server) : socket(SOCK_STREAM) {
    socket.Connect(server);
  }
  FuzzSocket socket;
  size_t sent = 0;
};

// Always readable, and registered last: takes one step in each pass.
class Stepper : public Socket {
 public:
  Stepper(FuzzInput* input, int protocol)
      : Socket(eventfd(1, EFD_CLOEXEC)),
        input_(input),
        protocol_(protocol),
        talk_(protocol) {
    auto [status_fd, launcher] = MakeSocketPair();
    launcher_ = std::move(launcher);
    status_ = std::make_unique<StatusSocket>(status_fd);
    delegate_ = std::make_unique<ProxySocketDelegateImpl>(status_.get());
    link_ = MakeLink(protocol, delegate_.get(), reactor_);
    tcp_ = std::make_unique<TcpServer>(reactor_, *link_);
    udp_ = std::make_unique<UdpServer>(reactor_, *link_);
    control_ = std::make_unique<ControlServer>(reactor_, *link_, *status_);
    FUZZ_CHECK(datagrams_.Bind(kDatagramPort));
  }
  ~Stepper() override {
    reactor_.Unregister(*this, Reactor::kRead);
    tcp_->ResetConnections();
  }

  void Run() {
    auto [link_fd, companion] = MakeSocketPair();
    companion_ = std::move(companion);
    to_link_ = GoodConnectionHeader(input_->TakeLe16());
    if (input_->TakeU8() != 0) to_link_ += HandshakeAck(protocol_);
    companion_->Write(to_link_.data(), to_link_.size());
    to_link_.clear();
    FUZZ_CHECK(link_->Connect(link_fd));
    server_ = Loopback(tcp_->Listen());
    diverted_ = Loopback(udp_->Listen());
    FUZZ_CHECK(server_.port != 0 && diverted_.port != 0);
    status_->StartupCompleted();
    reactor_.Register(*this, Reactor::kRead);
    reactor_.Start();
    ReadStatus();
  }

  void OnReadReady() override {
    if (input_->IsEmpty()) {
      if (last_passes_-- == 0) reactor_.Stop();
      ReadLink();
    } else {
      Step(input_->TakeU8());
    }
    SendToLink();
    ReadStatus();
  }

 private:
  void Step(uint8_t step) {
    const size_t who = step >> 4;
    application_t* const application =
        who < applications_.size() ? applications_[who].get() : nullptr;
    switch (step & 0xF) {
      case STEP_COMPANION_SAYS:
        to_link_ += TakeMessage(input_, protocol_);
        break;
      case STEP_CONNECT:
        if (applications_.size() < kMaxApplications) {
          applications_.push_back(std::make_unique<application_t>(server_));
        }
        break;
      case STEP_DATAGRAM: {
        const HostAndPort& remote = kRemotes[input_->TakeU8() % 4];
        link_->SendDatagram(Loopback(kDatagramPort), remote,
                            std::string(input_->TakeLe16(), 'd'));
        break;
      }
      case STEP_DIVERTED:
        datagrams_.SendTo(diverted_, std::string(input_->TakeU8(), 'd'));
        break;
      case STEP_LINK_READ:
        ReadLink();
        break;
      case STEP_CONTROL: {
        const std::string packet = input_->TakeShort();
        control_->ProcessMessage(packet.data(), packet.size());
        break;
      }
      case STEP_WAIT:
        lead_ += input_->TakeU8() % 8;
        SetMonotonicClockLead(lead_);
        break;
      case STEP_LINK_ENDS:
        shutdown(companion_->GetFd(), SHUT_WR);
        break;
      default:
        if (application != nullptr) Act(step & 0xF, who, *application);
    }
  }

  void Act(uint8_t step, size_t who, application_t& application) {
    const int fd = application.socket.GetFd();
    if (step == STEP_SEND) Send(who, application, input_->TakeLe16());
    if (step == STEP_END) shutdown(fd, SHUT_WR);
    if (step == STEP_GO) shutdown(fd, SHUT_RDWR);
    if (step == STEP_READ) ReadAll(application.socket);
    ReadAll(datagrams_);
  }

  // Streams are numbered from 1 in the order in which they connect.
  static void Send(size_t who, application_t& application, size_t count) {
    std::string bytes(count, '\0');
    for (size_t i = 0; i < count; ++i) {
      bytes[i] = DaemonTalk::PatternAt(static_cast<uint32_t>(who + 1),
                                       application.sent + i);
    }
    application.sent += application.socket.Send(bytes);
  }

  void SendToLink() {
    const size_t count = to_link_.size();
    const int sent = count == 0 ? 0 : companion_->Write(to_link_.data(), count);
    if (sent > 0) to_link_.erase(0, static_cast<size_t>(sent));
  }
  void ReadLink() { talk_.Add(ReadAll(*companion_)); }

  void ReadStatus() {
    const std::string bytes = ReadAll(*launcher_);
    records_.Append(bytes.data(), bytes.size());
    status_record_t record;
    while (records_.Next(&record)) {
    }
    FUZZ_CHECK(records_.GetProblem().empty());
    FUZZ_CHECK(records_.DescribeCutRecord().empty());
  }

  FuzzInput* const input_;
  const int protocol_;
  DaemonTalk talk_;
  StatusReader records_;
  std::unique_ptr<Socket> launcher_;
  std::unique_ptr<Socket> companion_;
  const FuzzSocket datagrams_{SOCK_DGRAM};
  // As in the daemon: what is destroyed first stands last.
  Reactor reactor_;
  std::unique_ptr<StatusSocket> status_;
  std::unique_ptr<ProxySocketDelegateImpl> delegate_;
  std::unique_ptr<ProxySocket> link_;
  std::unique_ptr<ControlServer> control_;
  std::unique_ptr<TcpServer> tcp_;
  std::unique_ptr<UdpServer> udp_;
  std::vector<std::unique_ptr<application_t>> applications_;
  HostAndPort server_;
  HostAndPort diverted_;
  std::string to_link_;  // not written yet
  time_t lead_ = 0;
  int last_passes_ = kLastPasses;
};

}  // namespace

void RunLinkScript(FuzzInput* input, int protocol) {
  static const bool is_set_up = [] {
    SilenceLog();
    static const HostAndPort remote = kRemotes[1];
    SetOriginalDestination(&remote);
    // A look-up without a table holds no descriptor.
    SetSocketTableDirectory("/dev/null");
    return true;
  }();
  static_cast<void>(is_set_up);
  const int descriptors = CountDescriptors();
  {
    const StopCatcher stop;
    Stepper(input, protocol).Run();
  }
  SetMonotonicClockLead(0);
  FUZZ_CHECK(CountDescriptors() == descriptors);
}

char DaemonTalk::PatternAt(uint32_t id, size_t position) {
  return static_cast<char>(id * 67 + position * 31 + position / 256);
}

void DaemonTalk::Add(const std::string& bytes) {
  bytes_ += bytes;
  while (protocol_ == 20 ? NextV2() : NextV1()) {
  }
}

bool DaemonTalk::NextV1() {
  if (bytes_.empty()) return false;
  const uint8_t type = GetU8(bytes_.data());
  FUZZ_CHECK(v1::IsFromDaemon(type));
  const size_t size = v1::GetMessageSize(bytes_.data(), bytes_.size());
  if (size == 0 || size > bytes_.size()) return false;
  const uint32_t id = size < 5 ? 0 : v1::GetId(bytes_.data());
  if (type == TYPE_TCP_CONNECT) OnConnect(id);
  if (type == TYPE_TCP_CLOSE) OnClose(id);
  if (type == TYPE_TCP_DATA) OnData(id, bytes_.substr(7, size - 7));
  bytes_.erase(0, size);
  return true;
}

bool DaemonTalk::NextV2() {
  const size_t fed =
      std::min(bytes_.size(), decoder_.GetAvailableBufferSpace());
  uint32_t consumed;
  decoder_.BufferData(bytes_.data(), static_cast<uint32_t>(fed), &consumed);
  bytes_.erase(0, consumed);
  MessageDecoder::message_t message;
  const bool is_whole = decoder_.GetAndClearMessage(&message);
  FUZZ_CHECK(!decoder_.HasFailed());
  if (!is_whole) return fed > 0;
  const messages::Header& header = message.header;
  switch (header.type()) {
    case messages::TCP_CONNECT:
      OnConnect(header.tcp_connect().stream_id());
      break;
    case messages::TCP_CLOSE:
      OnClose(header.tcp_close().stream_id());
      break;
    case messages::TCP_WRITE:
      OnData(header.tcp_write().stream_id(), message.payload);
      break;
    default:
      FUZZ_CHECK(header.type() == messages::HANDSHAKE_START ||
                 header.type() == messages::HANDSHAKE_DONE ||
                 header.type() == messages::UDP_SEND ||
                 header.type() == messages::PACKAGE_NAMES);
  }
  return true;
}

void DaemonTalk::OnConnect(uint32_t id) {
  FUZZ_CHECK(id == last_id_ + 1);
  last_id_ = id;
  open_[id] = 0;
}

void DaemonTalk::OnData(uint32_t id, const std::string& bytes) {
  FUZZ_CHECK(open_.count(id) != 0);
  size_t& position = open_[id];
  for (const char byte : bytes) FUZZ_CHECK(byte == PatternAt(id, position++));
}

void DaemonTalk::OnClose(uint32_t id) { FUZZ_CHECK(open_.erase(id) == 1); }

}  // namespace vantrel
