// Plays a device to the companion, in the protocol that the first byte chooses:
// the same calls and answers must come out however the bytes are cut. So must
// what the launcher says of them.
#include <algorithm>
#include <memory>
#include <string>

#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_messages.h"
#include "support/link_opening.h"

namespace vantrel {
namespace {

constexpr int kProtocols[] = {20, 1, 5};
constexpr size_t kMaxBytes = 256 * 1024;

class Recorder : public DeviceMessages {
 public:
  void OnReady(const std::string& text) override { Add("ready", text); }
  void OnConnect(uint32_t id, const HostAndPort& remote,
                 uint32_t uid) override {
    Add("connect", Number(id) + remote.ToString() + Number(uid));
  }
  void OnData(uint32_t id, std::string bytes) override {
    Add("data", Number(id) + bytes);
  }
  void OnClose(uint32_t id) override { Add("close", Number(id)); }
  void OnDatagram(const HostAndPort& local, const HostAndPort& remote,
                  const std::string& payload) override {
    Add("datagram", local.ToString() + remote.ToString() + payload);
  }
  void OnPackageName(uint32_t uid, const std::string& name) override {
    Add("package", Number(uid) + name);
  }
  void OnTransfer(std::unique_ptr<FlowScheduler::Flow> transfer) override {
    std::string message;
    FUZZ_CHECK(transfer->TakeMessage(16, &message));
    Add("transfer", message);
  }
  void OnNotice(const std::string& text) override { Add("notice", text); }
  void OnUnexpected(const std::string& text) override {
    Add("unexpected", text);
  }
  void OnFailure(const std::string& text) override {
    Add("failure", text);
    has_failed = true;
  }

  bool has_failed = false;
  std::string control;
  std::string calls;

 private:
  static std::string Number(uint32_t number) {
    return std::to_string(number) + " ";
  }
  void Add(const char* name, const std::string& text) {
    calls.append(name).append(" ").append(text).append("\n");
  }
};

std::unique_ptr<LinkProtocol> MakeProtocol(int protocol, std::string* control) {
  if (protocol == 20) return std::make_unique<ProtocolV2>("", control);
  return std::make_unique<ProtocolV1>(protocol, control);
}

std::string Play(int protocol, const std::string& bytes, size_t piece) {
  Recorder device;
  const auto link = MakeProtocol(protocol, &device.control);
  for (size_t at = 0; at < bytes.size() && !device.has_failed;) {
    const LinkProtocol::room_t room = link->GetRoom();
    const size_t fed = std::min({bytes.size() - at, piece, room.size});
    // All messages are handled, so there must be space.
    FUZZ_CHECK(fed > 0);
    bytes.copy(room.begin, fed, at);
    link->OnFilled(fed);
    at += fed;
    while (link->HandleNext(device)) {
    }
  }
  return device.calls + device.control;
}

// The launcher's look at what a companion sends first.
std::string LookAtOpening(int protocol, const std::string& bytes,
                          size_t piece) {
  LinkOpening opening(protocol, LinkOpening::Sender::kCompanion);
  for (size_t at = 0; at < bytes.size(); at += piece) {
    opening.Append(bytes.substr(at, piece));
  }
  return opening.GetFault() + opening.GetFaultOfSilence();
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  vantrel::FuzzInput input(data, size);
  const uint8_t choice = input.TakeU8();
  const int protocol = vantrel::kProtocols[choice % 3];
  std::string bytes;
  while (!input.IsEmpty() && bytes.size() < vantrel::kMaxBytes) {
    bytes += vantrel::TakeMessage(&input, protocol);
  }
  FUZZ_CHECK(vantrel::Play(protocol, bytes, bytes.size()) ==
             vantrel::Play(protocol, bytes, 3));
  FUZZ_CHECK(vantrel::LookAtOpening(protocol, bytes, bytes.size() + 1) ==
             vantrel::LookAtOpening(protocol, bytes, 3));
  return 0;
}
