// Sends packets to the control port of a daemon whose link has protocol 1.
#include "control/control_packets.h"
#include "control/control_server.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_network.h"
#include "link/bluetooth_socket.h"
#include "link/link_testing.h"
#include "reactor/reactor_testing.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  vantrel::NeedPrivateNetwork();
  vantrel::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  const StopCatcher stop;
  FuzzInput input(data, size);
  Reactor reactor;
  FakeLinkDelegate delegate;
  BluetoothSocket link(&delegate, reactor, BluetoothSocket::FLAG_NONE, nullptr);
  const auto [link_fd, companion] = MakeSocketPair();
  const auto [status_fd, launcher] = MakeSocketPair();
  const std::string header = GoodConnectionHeader();
  companion->Write(header.data(), header.size());
  FUZZ_CHECK(link.Connect(link_fd));
  StatusSocket status(status_fd);
  ControlServer control(reactor, link, status);
  FUZZ_CHECK(control.Listen() == kControlPort);
  const FuzzSocket sender(SOCK_DGRAM);
  while (!input.IsEmpty()) {
    sender.SendTo(Loopback(kControlPort), input.TakeShort());
    control.OnReadReady();
    link.OnWriteReady();
    ReadAll(*companion);
    ReadAll(*launcher);
  }
  return 0;
}
