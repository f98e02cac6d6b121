// The entry point: creates every long-lived object in a fixed order, installs
// the interception rules, runs the event loop, and takes all of it down again.
//
// Usage: vantrel VERSION, with the connected Bluetooth socket as standard input
// and the status channel as standard output. VERSION is the link protocol: 1, 5
// or 20.

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <malloc.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "capture/tcp_server.h"
#include "capture/udp_conduit.h"
#include "capture/udp_server.h"
#include "common/capabilities.h"
#include "common/log.h"
#include "common/log_texts.h"
#include "control/control_server.h"
#include "control/proxy_socket_delegate_impl.h"
#include "control/status_records.h"
#include "control/status_socket.h"
#include "daemon/iptables.h"
#include "daemon/memory_reserve.h"
#include "link/bluetooth_socket.h"
#include "link_v2/proxy_socket_v2.h"
#include "reactor/reactor.h"

namespace vantrel {
namespace {

// Nothing is installed yet wherever this is called, so nothing is cleaned up.
// The record is not checked: there is nobody else to tell.
[[noreturn]] void Abort(int status_fd, ExitCode code) {
  LOGD("Aborting with exit code %d", code);
  const std::string record = EncodeStatusWord(code);
  static_cast<void>(!write(status_fd, record.data(), record.size()));
  exit(code);
}

// A descriptor of its own for what |stream| was inherited on; -1 when that was
// closed. Above the standard ones, which are reopened next: where one of them
// was inherited closed, a plain duplicate would take its number and be lost.
// Close-on-exec, as every descriptor above the standard ones: the shells that
// change the rules would fail with a table full of inherited descriptors.
int Duplicate(FILE* stream) {
  return fcntl(fileno(stream), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

// What the process or its child commands print must never reach the link or
// the status channel.
void DetachStandardStreams() {
  static_cast<void>(!freopen("/dev/null", "r", stdin));
  static_cast<void>(!freopen("/dev/null", "w", stdout));
  static_cast<void>(!freopen("/dev/null", "w", stderr));
}

// What traffic queues comes and goes with every turn of the loop. Up to so much
// free memory stays with the process, where the C library can be told: to give
// it back and to ask for it anew is a fifth of what a download costs.
void KeepFreedMemory() {
#ifdef M_TRIM_THRESHOLD
  mallopt(M_TRIM_THRESHOLD, 1 << 20);
#endif
}

// Null for an unknown version.
std::unique_ptr<ProxySocket> MakeLink(int version,
                                      ProxySocket::Delegate* delegate,
                                      Reactor& reactor,
                                      const UdpConduitFactory& factory) {
  switch (version) {
    case 20:
      return std::make_unique<ProxySocketV2>(delegate, reactor);
    case 5:
      return std::make_unique<BluetoothSocket>(
          delegate, reactor, BluetoothSocket::FLAG_ALL, factory);
    case 1:
      return std::make_unique<BluetoothSocket>(
          delegate, reactor, BluetoothSocket::FLAG_NONE, factory);
    default:
      return nullptr;
  }
}

// The port, or 0 when the build is not debuggable and the server stays silent.
uint16_t ListenIfDebuggable(ControlServer& server, int status_fd) {
  if (!property_get_bool("ro.debuggable", false)) return 0;
  LOGD("Userdebug build detected. Listening on control port.");
  const uint16_t port = server.Listen();
  if (port == 0) Abort(status_fd, kControlServerFailed);
  return port;
}

// What is left is for the removal of the rules, and for the sockets that answer
// datagrams: they are bound to addresses of others, and to ports below 1024.
void GiveUpCapabilities() {
  if (KeepOnlyCapabilities(
          {CAP_NET_ADMIN, CAP_NET_RAW, CAP_NET_BIND_SERVICE})) {
    return;
  }
  LOGW("Unable to give up capabilities: %s", strerror(errno));
}

void ReportTransferStats(ProxySocket& link, StatusSocket& status) {
  LOGD("Sending transfer stats before vantrel shuts down");
  MessageUidTransferStatsInfo stats;
  link.GetTransferStats(&stats);
  status.OnTransferStatsResult(&stats);
}

int Main(int argc, char** argv) {
  // A write to a dead peer must come back as an error: ending on a signal
  // would leave the rules installed and the device without any network.
  signal(SIGPIPE, SIG_IGN);
  // Inherited as ignored, it would make every command of the rules look failed.
  signal(SIGCHLD, SIG_DFL);
  const int link_fd = Duplicate(stdin);
  const int status_fd = Duplicate(stdout);
  DetachStandardStreams();
  KeepFreedMemory();

  if (argc != 2) Abort(status_fd, kBadArgumentCount);
  const int version = atoi(argv[1]);
  LOGD("Vantrel launched, version=%d.", version);

  Reactor reactor;
  StatusSocket status(status_fd);
  ProxySocketDelegateImpl delegate(&status);
  const UdpConduitFactory factory = [](Reactor& r, const HostAndPort& remote) {
    return new UdpConduit(r, remote);
  };
  const std::unique_ptr<ProxySocket> link =
      MakeLink(version, &delegate, reactor, factory);
  if (link == nullptr) Abort(status_fd, kBadVersion);
  if (!link->Connect(link_fd)) Abort(status_fd, kConnectFailed);

  ControlServer control_server(reactor, *link, status);
  const uint16_t control_port = ListenIfDebuggable(control_server, status_fd);
  // Also when it does not listen: the line marks the step.
  LOGD("control_server started");

  TcpServer tcp_server(reactor, *link);
  const uint16_t tcp_port = tcp_server.Listen();
  if (tcp_port == 0) Abort(status_fd, kTcpServerFailed);
  LOGD("tcmp_server listening.");  // spelled so; kept for compatibility

  UdpServer udp_server(reactor, *link);
  const uint16_t udp_port = udp_server.Listen();
  if (udp_port == 0) Abort(status_fd, kUdpServerFailed);
  LOGD("udp_server listening.");

  // A run that was killed may have left its rules. From here on nothing
  // aborts, so the rules are never left behind by a failed start.
  KeepMemoryReserve();
  TeardownIptables(0, false);
  SetupIptables(tcp_port, udp_port);
  // Not before: the tool may have to load what the rules need of the kernel.
  GiveUpCapabilities();
  LOGD("iptables setup complete.");
  status.StartupCompleted();
  LOGD("Vantrel started on ports C:%d, T:%d, U:%d.", control_port, tcp_port,
       udp_port);

  reactor.Start();

  tcp_server.ResetConnections();
  TeardownIptables(0, true);
  ReportTransferStats(*link, status);
  // Lets the launching process read the report before the descriptors close.
  sleep(1);
  LOGD(VANTREL_TEXT_FINISHED);
  return 0;
}

}  // namespace
}  // namespace vantrel

int main(int argc, char** argv) { return vantrel::Main(argc, argv); }
