#pragma once

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "support/socket_file.h"
#include "tools/launch/event_loop.h"

namespace vantrel {

// Tells what happens to everybody who connects to a socket: the present state
// at once and every kStateIntervalMs, other lines when they come. A reader that
// leaves its queue in the kernel full is dropped. Without readers nothing is
// done.
class StatusServer {
 public:
  struct callbacks_t {
    std::function<std::string()> get_state;       // a line without its newline
    std::function<void(const std::string&)> say;  // to a person
  };

  // |loop| outlives this. Throws std::system_error when |path| cannot be
  // listened on.
  StatusServer(EventLoop& loop, const std::string& path, callbacks_t callbacks);
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;
  ~StatusServer();

  bool HasReaders() const { return !readers_.empty(); }
  // To all readers, without waiting for any.
  void Send(const std::string& line);
  void SendState();

 private:
  void Listen();
  void HandleReader();
  void StartTicking();
  void HandleTick();

  const callbacks_t callbacks_;
  EventLoop& loop_;
  SocketFile file_;
  asio::posix::stream_descriptor listener_;
  asio::steady_timer timer_;
  bool is_listening_ = false;
  bool is_ticking_ = false;
  std::vector<UniqueFd> readers_;
};

}  // namespace vantrel
