#pragma once

#include <optional>
#include <string>
#include <variant>

#include "common/unique_fd.h"
#include "support/companion_state.h"
#include "tools/launch_state.h"

namespace vantrel {

// Reads the states that a launcher or a companion writes to its status socket.
class StatusClient {
 public:
  using State = std::variant<launch_state_t, companion_state_t>;

  // |path| fits a socket's address. Throws std::system_error when nobody
  // listens there.
  explicit StatusClient(const std::string& path);

  // To wait for until it is readable.
  int GetFd() const { return socket_.Get(); }
  // Takes what there is, without waiting. False when the other end has gone.
  [[nodiscard]] bool Receive();
  // The next state that has come whole, or none. Throws std::runtime_error when
  // it is neither of them that speaks.
  std::optional<State> Next();

 private:
  const std::string path_;
  UniqueFd socket_;
  std::string bytes_;  // received
  size_t begin_ = 0;   // of what was not taken yet
};

}  // namespace vantrel
