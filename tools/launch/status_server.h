#pragma once

#include <asio/io_context.hpp>
#include <functional>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "support/descriptor.h"
#include "support/socket_file.h"
#include "support/timer.h"

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
  StatusServer(asio::io_context& loop, const std::string& path,
               callbacks_t callbacks);
  StatusServer(const StatusServer&) = delete;
  StatusServer& operator=(const StatusServer&) = delete;

  bool HasReaders() const { return !readers_.empty(); }
  // To all readers, without waiting for any.
  void Send(const std::string& line);
  void SendState();

 private:
  UniqueFd Listen(const std::string& path);
  void HandleReader();
  void StartTicking();
  void HandleTick();

  const callbacks_t callbacks_;
  SocketFile file_;
  Descriptor listener_;
  Timer timer_;
  bool is_ticking_ = false;
  std::vector<UniqueFd> readers_;
};

}  // namespace vantrel
