// A whole link of the companion, in the protocol that the first byte chooses or
// that the companion has to find out, with its scheduler, streams and datagram
// flows, on its real loop. The script plays the device and, in a private
// network, the remotes.
#include <stdint.h>

#include <asio/io_context.hpp>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "companion/companion_log.h"
#include "companion/device_link.h"
#include "fuzz/companion_link_steps.h"
#include "fuzz/fuzz_messages.h"
#include "fuzz/fuzz_network.h"
#include "link_v2/frame.h"
#include "link_v2/message_decoder.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

constexpr int kProtocols[] = {20, 1, 5};
constexpr size_t kMaxBytesToLink = 1 << 20;

class Script {
 public:
  // |protocol| is the device's.
  Script(FuzzInput* input, int protocol, bool is_told)
      : input_(input),
        protocol_(protocol),
        policy_({DestinationPolicy::ParseRule("127.0.0.0/8", true).value()},
                [](const IpAddress&) { return std::nullopt; }) {
    FUZZ_CHECK(server_.Bind(kRemoteTcpPort) && listen(server_.GetFd(), 8) == 0);
    FUZZ_CHECK(datagrams_.Bind(kRemoteUdpPort));
    if (is_told) options_.protocol = protocol;
    options_.max_held_bytes = 256 * 1024;
    options_.network = active_network_t{7, true};
    auto [fd, device] = MakeSocketPair();
    device_ = std::move(device);
    link_ = std::make_unique<DeviceLink>(
        DeviceLink::shared_t{loop_, options_, destinations_, rules_, sockets_,
                             turns_},
        UniqueFd(fd), link_peer_t(), 1, [] {});
  }

  void Run() {
    link_->Start();
    while (!input_->IsEmpty()) {
      Step(input_->TakeU8());
      WriteToLink();
      RunLoop();
    }
    device_.reset();
    RunLoop();
    FUZZ_CHECK(!link_->IsUp());
    remotes_.clear();
    // Streams that the device has closed deliver their rest for 10 s at most.
    for (int i = 0; i < 12; ++i) Tick(1);
    FUZZ_CHECK(link_->IsOver());
  }

 private:
  void Step(uint8_t step) {
    const size_t who = step >> 4;
    switch (step & 0xF) {
      case STEP_DEVICE_SAYS:
        to_link_ += TakeMessage(input_, protocol_);
        break;
      case STEP_ACCEPT: {
        const int fd = accept4(server_.GetFd(), nullptr, nullptr,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd != -1) remotes_.push_back(std::make_unique<Socket>(fd));
        if (fd != -1) remotes_.back()->ResetOnClose();
        break;
      }
      case STEP_DEVICE_READS:
        ReadLink();
        break;
      case STEP_ANSWER:
        Answer(input_->TakeLe16());
        break;
      case STEP_TICK:
        Tick(input_->TakeU8() % 16);
        break;
      case STEP_DEVICE_ENDS:
        shutdown(device_->GetFd(), SHUT_WR);
        break;
      case STEP_CLOSE:
        link_->Close("the script says so");
        break;
      case STEP_NETWORK:
        link_->ReportNetwork();
        link_->LogState();
        break;
      default:
        if (who < remotes_.size()) Act(step & 0xF, &remotes_[who]);
    }
  }

  void Act(uint8_t step, std::unique_ptr<Socket>* remote) {
    const std::string bytes(step == STEP_REMOTE_SENDS ? input_->TakeLe16() : 0,
                            'r');
    if (*remote == nullptr) return;
    const int fd = (*remote)->GetFd();
    static_cast<void>(
        send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
    if (step == STEP_REMOTE_ENDS) shutdown(fd, SHUT_WR);
    if (step == STEP_REMOTE_RESETS) remote->reset();
    if (step == STEP_REMOTE_READS) ReadAll(**remote);
  }

  // To whoever has written last.
  void Answer(size_t size) {
    char request[65536];
    sockaddr_in sender = {};
    socklen_t length = sizeof(sender);
    const ssize_t count =
        recvfrom(datagrams_.GetFd(), request, sizeof(request), MSG_DONTWAIT,
                 reinterpret_cast<sockaddr*>(&sender), &length);
    if (count >= 0) client_ = HostAndPort::FromIPv4Addr(sender);
    if (client_.port != 0) datagrams_.SendTo(client_, std::string(size, 'a'));
  }

  void Tick(int seconds) {
    now_ += std::chrono::seconds(seconds);
    link_->OnTick(now_);
    RunLoop();
  }
  void RunLoop() {
    loop_.restart();
    // Bounded: nothing may keep the loop busy on its own.
    size_t handled = 0;
    while (loop_.poll_one() > 0) FUZZ_CHECK(++handled < 100'000);
  }

  void WriteToLink() {
    if (to_link_.empty()) return;
    const int sent = device_->Write(to_link_.data(), to_link_.size());
    if (sent > 0) to_link_.erase(0, static_cast<size_t>(sent));
    if (to_link_.size() > kMaxBytesToLink) to_link_.clear();
  }
  // The companion's words are sound whatever the device says.
  void ReadLink() {
    from_link_ += ReadAll(*device_);
    if (from_link_.empty()) return;
    // The device may have begun otherwise than it should.
    if (!is_v2_) is_v2_ = GetU8(from_link_.data()) == (kFrameMagic & 0xFF);
    while (*is_v2_ ? NextV2() : NextV1()) {
    }
  }
  bool NextV1() {
    if (from_link_.empty()) return false;
    FUZZ_CHECK(v1::IsFromCompanion(GetU8(from_link_.data())));
    const size_t size =
        v1::GetMessageSize(from_link_.data(), from_link_.size());
    if (size == 0 || size > from_link_.size()) return false;
    from_link_.erase(0, size);
    return true;
  }
  bool NextV2() {
    const size_t fed =
        std::min(from_link_.size(), decoder_.GetAvailableBufferSpace());
    uint32_t consumed;
    decoder_.BufferData(from_link_.data(), static_cast<uint32_t>(fed),
                        &consumed);
    from_link_.erase(0, consumed);
    MessageDecoder::message_t message;
    const bool is_whole = decoder_.GetAndClearMessage(&message);
    FUZZ_CHECK(!decoder_.HasFailed());
    return is_whole || fed > 0;
  }

  FuzzInput* const input_;
  const int protocol_;
  const FuzzSocket server_{SOCK_STREAM};
  const FuzzSocket datagrams_{SOCK_DGRAM};
  std::vector<std::unique_ptr<Socket>> remotes_;
  HostAndPort client_;
  asio::io_context loop_{1};
  companion_options_t options_;
  const DestinationPolicy policy_;
  NameServers name_servers_{"/nowhere"};
  const Destinations destinations_{policy_, name_servers_, options_.look_ups};
  TrafficRules rules_{loop_, options_.rules, [] {}};
  SocketPool sockets_{25, 0, 1};  // enough for 6 streams
  TurnQueue turns_{loop_};
  std::unique_ptr<Socket> device_;
  std::unique_ptr<DeviceLink> link_;
  SteadyTime now_ = GetSteadyTime();
  std::string to_link_;        // not written yet
  std::string from_link_;      // not handled yet
  std::optional<bool> is_v2_;  // once the companion has said something
  MessageDecoder decoder_;
};

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vantrel::NeedPrivateNetwork();
  vantrel::ConfigureLog(vantrel::LogLevel::kError, false);
  vantrel::CaptureLibraryLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  FuzzInput input(data, size);
  const size_t choice = input.TakeU8() % (2 * std::size(kProtocols));
  const int protocol = kProtocols[choice % std::size(kProtocols)];
  const int descriptors = CountDescriptors();
  Script(&input, protocol, choice < std::size(kProtocols)).Run();
  FUZZ_CHECK(CountDescriptors() == descriptors);
  return 0;
}
