#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <asio/io_context.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/unique_fd.h"
#include "support/descriptor.h"

namespace vantrel {

// Writes to a descriptor that others may share and that nobody may read,
// without ever waiting for a reader: what it does not take at once is kept, and
// written by the loop when it does.
class Output {
 public:
  // |fd| is borrowed and keeps its flags; |loop| outlives this. |on_drained| is
  // called whenever nothing is kept any more, written or lost.
  Output(asio::io_context& loop, int fd, std::function<void()> on_drained = {});
  Output(const Output&) = delete;
  Output& operator=(const Output&) = delete;

  void Write(std::string_view bytes);
  // Tries once more what is kept.
  void Flush();
  // Waits at most so long for the reader.
  void Finish(int timeout_ms);

  // What is kept, until the next call.
  std::string_view GetKept() const {
    return std::string_view(bytes_).substr(written_);
  }
  // The errno with which the last attempt failed, or 0. What was kept then is
  // lost.
  int GetError() const { return error_; }

 private:
  enum class Means {
    kPlain,   // a file, or a descriptor of our own that does not block
    kSocket,  // a flag of the call keeps it from blocking
    kPolled,  // shared and blocking: asked before each small write
  };
  ssize_t WriteOnce();
  void Forget(int error);
  void Await();
  void HandleReady();

  asio::io_context& loop_;
  UniqueFd own_;  // another way to the same pipe or terminal; none otherwise
  int fd_;
  Means means_ = Means::kPlain;
  const std::function<void()> on_drained_;
  std::string bytes_;  // of which the first |written_| are written
  size_t written_ = 0;
  int error_ = 0;

  // A set of epoll(7) with the descriptor in it, while something is kept: to
  // wait for the descriptor itself, asio would take its blocking away from all
  // who share it.
  std::optional<Descriptor> ready_;
  bool is_awaited_ = false;
};

}  // namespace vantrel
