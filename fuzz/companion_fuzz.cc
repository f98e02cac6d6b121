// Plays a device to the companion, in the protocol that the first byte chooses:
// the same calls and answers must come out however the bytes are cut.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>

#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "fuzz/fuzz_log.h"

namespace vantrel {
namespace {

class Recorder : public DeviceMessages {
 public:
  void OnReady(const std::string& text) override { Add("ready", text); }
  void OnConnect(uint32_t id, const HostAndPort& remote,
                 uint32_t uid) override {
    Add("connect", Number(id) + remote.ToString() + Number(uid));
  }
  void OnData(uint32_t id, const char* bytes, size_t length) override {
    Add("data", Number(id) + std::string(bytes, length));
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
    if (!transfer->TakeMessage(16, &message)) abort();
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

std::unique_ptr<LinkProtocol> MakeProtocol(uint8_t choice,
                                           std::string* control) {
  if (choice % 3 == 0) return std::make_unique<ProtocolV2>("", control);
  return std::make_unique<ProtocolV1>(choice % 3 == 1 ? 1 : 5, control);
}

std::string Play(uint8_t choice, const char* data, size_t size, size_t piece) {
  Recorder device;
  const auto protocol = MakeProtocol(choice, &device.control);
  while (size > 0) {
    const size_t fed = std::min({size, piece, protocol->GetAvailableSpace()});
    if (fed == 0) abort();  // all messages are handled, so there must be space
    protocol->Feed(data, fed);
    data += fed;
    size -= fed;
    while (protocol->HandleNext(device)) {
    }
    if (device.has_failed) break;
  }
  return device.calls + device.control;
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  if (size < 2) return 0;
  const char* const bytes = reinterpret_cast<const char*>(data + 1);
  if (vantrel::Play(data[0], bytes, size - 1, size) !=
      vantrel::Play(data[0], bytes, size - 1, 3)) {
    abort();
  }
  return 0;
}
