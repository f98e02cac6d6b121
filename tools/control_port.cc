#include "tools/control_port.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "support/system_failure.h"

namespace vantrel {
namespace {

namespace fs = std::filesystem;

// The kernel's name for the socket that is bound to the control port, as in
// /proc/PID/fd; empty when there is none.
std::string FindListener() {
  char local[sizeof("0100007F:FFFF")];
  snprintf(local, sizeof(local), "%08X:%04X", htonl(INADDR_LOOPBACK),
           kControlPort);
  std::ifstream table("/proc/net/udp");
  for (std::string line; std::getline(table, line);) {
    std::istringstream row(line);
    std::vector<std::string> columns{std::istream_iterator<std::string>(row),
                                     std::istream_iterator<std::string>()};
    constexpr size_t kLocal = 1;
    constexpr size_t kInode = 9;
    if (columns.size() > kInode && columns[kLocal] == local) {
      return "socket:[" + columns[kInode] + "]";
    }
  }
  return "";
}

bool HasOpen(const fs::path& process, const std::string& file) {
  std::error_code error;  // it may have ended, or not be ours to look at
  for (const auto& fd : fs::directory_iterator(process / "fd", error)) {
    if (fs::read_symlink(fd, error) == file) return true;
  }
  return false;
}

// The number that |process| has in its own namespace.
std::optional<int> GetOwnNumber(const fs::path& process) {
  std::ifstream status(process / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.compare(0, 6, "NSpid:") != 0) continue;
    std::istringstream numbers(line.substr(6));
    int number = 0;
    while (numbers >> number) {
    }
    return number;
  }
  return std::nullopt;
}

}  // namespace

std::optional<int> FindControlPortOwner() {
  const std::string listener = FindListener();
  if (listener.empty()) return std::nullopt;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    if (HasOpen(entry.path(), listener)) return GetOwnNumber(entry.path());
  }
  return std::nullopt;
}

ControlPort::ControlPort()
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kControlPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // Connected, so that a refusal is reported to this socket.
  if (socket_.Get() < 0 ||
      connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
              sizeof(address)) != 0) {
    throw SystemFailure("no way to the control port");
  }
}

void ControlPort::Send(const std::string& packet) {
  if (send(socket_.Get(), packet.data(), packet.size(), 0) < 0) {
    throw SystemFailure("cannot send to the control port");
  }
}

bool ControlPort::IsRefused() const {
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  return error == ECONNREFUSED;
}

}  // namespace vantrel
