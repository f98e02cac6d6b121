// Plays the companion of a protocol 1 link over a socket pair: whatever it
// sends, the link must stay within its buffers and answer the same whether the
// bytes come at once or one by one.
#include <fcntl.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>

#include "fuzz/fuzz_log.h"
#include "link/bluetooth_socket.h"
#include "link/link_testing.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// What the stream and the delegate of the link saw of |input|.
std::string Play(const std::string& input, size_t piece) {
  Reactor reactor;
  FakeLinkDelegate delegate;
  FakeConduit stream(1, 1000, "p");
  BluetoothSocket link(&delegate, reactor, BluetoothSocket::FLAG_UDP_V2,
                       [](Reactor& r, const HostAndPort& remote) {
                         return new UdpConduit(r, remote);
                       });
  const auto [fd, peer] = MakeSocketPair();
  const std::string header = GoodConnectionHeader();
  peer->Write(header.data(), header.size());
  if (!link.Connect(fd)) abort();
  link.RegisterTcpStream(&stream);
  for (size_t i = 0; i < input.size(); i += piece) {
    peer->Write(input.data() + i, std::min(piece, input.size() - i));
    link.OnReadReady();
  }
  std::string seen;
  for (const std::string& data : stream.written) seen += "w" + data;
  for (const std::string& call : delegate.calls) seen += call;
  return seen + std::to_string(stream.acks) + std::to_string(stream.closes);
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  const vantrel::StopCatcher stop;
  const std::string input(reinterpret_cast<const char*>(data),
                          std::min<size_t>(size, 4096));
  if (input.empty()) return 0;
  if (vantrel::Play(input, input.size()) != vantrel::Play(input, 1)) abort();
  return 0;
}
