// Owner look-ups in a socket table of N rows, the worst case: the rows looked
// for come last. On files with the kernel's columns, and on the kernel's own
// tables of a network with nothing else in it.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "capture/socket_table_path_testing.h"
#include "capture/tcp_owners.h"
#include "capture/uid_helper.h"
#include "common/hex_testing.h"
#include "common/network_testing.h"
#include "reactor/socket.h"

namespace vantrel {
namespace {

constexpr uint32_t kUid = 10123;
constexpr char kHeading[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when "
    "retrnsmt   uid  timeout inode";

std::string Row(int64_t number, const char* local, const char* remote,
                uint32_t uid, unsigned long inode) {
  char row[151];  // the kernel pads its rows to 149 characters
  const int length = snprintf(
      row, sizeof(row),
      "%4d: %s %s 01 00000000:00000000 00:00000000 00000000 %5u        0 %lu 1 "
      "0000000000000000 20 4 30 10 -1",
      static_cast<int>(number), local, remote, uid, inode);
  return std::string(row, static_cast<size_t>(length)) +
         std::string(149 - static_cast<size_t>(length), ' ') + '\n';
}

// The kernel's tables are files while it lives, with |count| rows each. The
// last of "tcp" is a connection from port 40000 to port 80, the last of "udp" a
// flow from port 40000 to port 53.
class TableFiles {
 public:
  explicit TableFiles(int64_t count) {
    if (mkdtemp(directory_.data()) == nullptr) abort();
    std::ofstream tcp(directory_ + "/tcp");
    std::ofstream udp(directory_ + "/udp");
    std::ofstream(directory_ + "/tcp6") << kHeading << '\n';
    tcp << kHeading << '\n';
    udp << kHeading << '\n';
    for (int64_t i = 0; i < count - 1; ++i) {
      tcp << Row(i, "EFA7A8C0:9C41", "076433C6:0050", 10001, 77);
      udp << Row(i, "EFA7A8C0:9C41", "356433C6:0035", 10001, 77);
    }
    tcp << Row(count - 1, "EFA7A8C0:9C40", "076433C6:0050", kUid, 78);
    udp << Row(count - 1, "EFA7A8C0:9C40", "356433C6:0035", kUid, 78);
    SetSocketTableDirectory(directory_);
  }
  ~TableFiles() {
    SetSocketTableDirectory("/proc/net");
    std::filesystem::remove_all(directory_);
  }
  TableFiles(const TableFiles&) = delete;
  TableFiles& operator=(const TableFiles&) = delete;

 private:
  std::string directory_ =
      std::filesystem::temp_directory_path() / "tables.XXXXXX";
};

void TcpOwnerInFile(benchmark::State& state) {
  const TableFiles tables(state.range(0));
  TcpOwners owners;
  TcpOwners::connection_t connection;
  connection.destination = Endpoint("C6336407", 80);
  connection.source_port = 40000;
  while (state.KeepRunning()) {
    if (owners.Find(connection) != kUid) {
      state.SkipWithError("the owner was not found");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Each look-up of a datagram keeps its table open, as the daemon's do: so there
// are few, and what they leave is closed afterwards.
void DatagramOwnerInFile(benchmark::State& state) {
  const auto first = static_cast<uint32_t>(dup(STDIN_FILENO));
  const TableFiles tables(state.range(0));
  const HostAndPort local = Endpoint("C0A8A7EF", 40000);
  const HostAndPort remote = Endpoint("C6336435", 53);
  while (state.KeepRunning()) {
    if (UidHelper::FindOwnerUidForDatagramIpV4(local, remote) != kUid) {
      state.SkipWithError("the owner was not found");
      break;
    }
  }
  close_range(first, ~0U, 0);
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Connections to a listener of this program's own, from the address that the
// applications have: two rows each, and one for the listener.
class Connections {
 public:
  explicit Connections(int64_t count) {
    const rlimit limit = {8192, 8192};
    setrlimit(RLIMIT_NOFILE, &limit);
    is_good_ = EnterPrivateNetwork() &&
               system(
                   "PATH=$PATH:/usr/sbin:/sbin ip address replace "
                   "192.168.167.239/32 dev lo") == 0;
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const Socket listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    is_good_ = is_good_ && Bind(listener, address) &&
               listen(listener.GetFd(), 16) == 0;
    socklen_t length = sizeof(address);
    getsockname(listener.GetFd(), reinterpret_cast<sockaddr*>(&address),
                &length);
    for (int64_t i = 0; i < count && is_good_; ++i) Add(listener, address);
  }

  bool IsGood() const { return is_good_; }
  // One in the middle, which was not redirected: it is where it was to go.
  TcpOwners::connection_t Get() const {
    const int fd = ends_[ends_.size() / 2 | 1]->GetFd();
    sockaddr_in address = {};
    socklen_t length = sizeof(address);
    TcpOwners::connection_t connection;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    connection.local = HostAndPort::FromIPv4Addr(address);
    connection.destination = connection.local;
    getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length);
    connection.peer = HostAndPort::FromIPv4Addr(address);
    connection.source_port = connection.peer.port;
    return connection;
  }

 private:
  static bool Bind(const Socket& socket, const sockaddr_in& address) {
    return bind(socket.GetFd(), reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) == 0;
  }
  void Add(const Socket& listener, const sockaddr_in& to) {
    sockaddr_in application = {};
    application.sin_family = AF_INET;
    application.sin_addr.s_addr = inet_addr("192.168.167.239");
    ends_.push_back(std::make_unique<Socket>(
        socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    const Socket& socket = *ends_.back();
    socket.ResetOnClose();  // what only waits to end is in the table, too
    is_good_ = Bind(socket, application) &&
               connect(socket.GetFd(), reinterpret_cast<const sockaddr*>(&to),
                       sizeof(to)) == 0;
    ends_.push_back(
        std::make_unique<Socket>(accept(listener.GetFd(), nullptr, nullptr)));
  }

  bool is_good_ = false;
  std::vector<std::unique_ptr<Socket>> ends_;
};

void TcpOwnerInKernel(benchmark::State& state) {
  const Connections connections(state.range(0) / 2);
  if (!connections.IsGood()) {
    return state.SkipWithError("no network of its own");
  }
  TcpOwners owners;
  const TcpOwners::connection_t connection = connections.Get();
  while (state.KeepRunning()) {
    if (owners.Find(connection) != getuid()) {
      state.SkipWithError("the owner was not found");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The kernel's share: its table read whole and thrown away, where a look-up
// stops at its row, on average after half. The kernel goes
// through the connections of the whole machine for those of the network that
// asks.
void TcpTableAlone(benchmark::State& state) {
  const Connections connections(state.range(0) / 2);
  if (!connections.IsGood()) {
    return state.SkipWithError("no network of its own");
  }
  std::vector<char> block(1 << 16);
  while (state.KeepRunning()) {
    const Socket table(open("/proc/net/tcp", O_RDONLY | O_CLOEXEC));
    while (table.Read(block.data(), block.size()) > 0) {
    }
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

BENCHMARK(TcpOwnerInFile)->ArgName("rows")->Arg(10)->Arg(200)->Arg(2000);
BENCHMARK(DatagramOwnerInFile)
    ->ArgName("rows")
    ->Arg(10)
    ->Arg(200)
    ->Arg(2000)
    ->Iterations(200);
BENCHMARK(TcpOwnerInKernel)->ArgName("rows")->Arg(10)->Arg(200)->Arg(2000);
BENCHMARK(TcpTableAlone)->ArgName("rows")->Arg(10)->Arg(200)->Arg(2000);

}  // namespace
}  // namespace vantrel
