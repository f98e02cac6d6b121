#pragma once

#include <stddef.h>

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "support/descriptor.h"
#include "support/socket_file.h"
#include "support/timer.h"

namespace vantrel {

// Tells what happens to everybody who connects to a socket: the present state
// at once and every kStateIntervalMs, other lines when they come. What a
// reader's queue in the kernel does not take is kept, as far as kMaxLinesBehind
// goes; a reader that is further behind is dropped. Without readers nothing is
// done.
class StatusServer {
 public:
  // Further ones wait until one of these has gone.
  static constexpr size_t kMaxReaders = 32;
  // Lines that may come for a reader that has not taken all of the one before.
  static constexpr int kMaxLinesBehind = 2;

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

  ~StatusServer();

  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

  bool HasReaders() const { return !readers_.empty(); }
  // To all readers, without waiting for any.
  void Send(const std::string& line);
  void SendState();

 private:
  class Reader;

  UniqueFd Listen(const std::string& path);
  void HandleReader();
  void AddReader(UniqueFd fd);
  // Waits for the next one where there is room for it.
  void WaitForReader();
  void StartTicking();
  void HandleTick();

  asio::io_context& loop_;
  const callbacks_t callbacks_;
  SocketFile file_;
  Descriptor listener_;
  Timer timer_;
  bool is_ticking_ = false;
  std::vector<std::unique_ptr<Reader>> readers_;
};

}  // namespace vantrel
