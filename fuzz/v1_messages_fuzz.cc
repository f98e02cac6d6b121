// Plays the companion of a protocol 1 link over a socket pair: whatever it
// sends, the link must stay within its buffers and do the same whether the
// bytes come at once or in pieces.
#include <sys/socket.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_messages.h"
#include "link/bluetooth_socket.h"
#include "link/link_testing.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// Fits the socket, so that all of it comes at once.
constexpr size_t kMaxBytes = 100 * 1024;

// What the stream and the delegate of the link saw of |bytes|.
std::string Play(const std::string& bytes, size_t piece) {
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
  FUZZ_CHECK(link.Connect(fd));
  link.RegisterTcpStream(&stream);
  for (size_t i = 0; i < bytes.size(); i += piece) {
    peer->Write(bytes.data() + i, std::min(piece, bytes.size() - i));
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
  vantrel::FuzzInput input(data, size);
  std::string bytes;
  while (!input.IsEmpty()) bytes += vantrel::TakeMessage(&input, 1);
  if (bytes.empty() || bytes.size() > vantrel::kMaxBytes) return 0;
  const size_t piece = bytes.size() / 100 + 1;
  FUZZ_CHECK(vantrel::Play(bytes, bytes.size()) == vantrel::Play(bytes, piece));
  return 0;
}
