#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// Where the device connects to: "unix:PATH", "tcp:HOST:PORT" or
// "rfcomm:CHANNEL" on any Bluetooth adapter of this machine.
struct LinkAddress {
  enum class Kind { kUnix, kTcp, kRfcomm };

  // False for any other text.
  [[nodiscard]] static bool Parse(const std::string& text, LinkAddress* out);

  Kind kind = Kind::kUnix;
  std::string path_or_host;
  std::string port;  // decimal; "0": the system chooses one
  int channel = 0;   // RFCOMM, 1 to 30
};

// Waits for devices. Each connection is handed over to a function, which owns
// it from then on; until it calls Accept() again the next ones wait.
class LinkListener : public Socket {
 public:
  LinkListener(Reactor& reactor, std::function<void(int fd)> on_link);
  // Removes the socket file that it made, unless somebody else took its place.
  ~LinkListener() override;

  // Begins to listen, accepts nothing yet. False after a failure, which is
  // logged. A socket file on which nobody listens any more is replaced.
  [[nodiscard]] bool Open(const LinkAddress& address);
  void Accept();

  void OnReadReady() override;

 private:
  bool OpenUnix(const std::string& path);
  bool OpenTcp(const LinkAddress& address);
  bool OpenRfcomm(int channel);
  bool Listen(const std::string& where);

  Reactor& reactor_;
  const std::function<void(int fd)> on_link_;
  // Our socket file and what it was when we made it.
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace vantrel
