#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/descriptor_base.hpp>
#include <functional>
#include <memory>

#include "common/unique_fd.h"
#include "companion/loop_objects.h"

namespace vantrel {

// One open descriptor in the program's loop. Owns it and makes it non-blocking.
// Reading and writing are the caller's: a handler means that trying is worth
// it, because of bytes, room, an end, an error or a hang-up. Each wait ends
// with one call of its handler, so what nobody waits for wakes nobody.
class Descriptor {
 public:
  using Handler = std::function<void()>;

  // |loop| outlives it. |on_readable| and |on_writable| may destroy it as their
  // last act. Throws std::system_error when the system cannot watch |fd|.
  Descriptor(asio::io_context& loop, UniqueFd fd, Handler on_readable,
             Handler on_writable);
  // No handler is called any more, also not for what has happened already.
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int GetFd() const { return fd_; }

  // No effect while the same wait is under way.
  void WaitReadable();
  void WaitWritable();

 private:
  struct wait_t {
    Handler handler;
    bool is_under_way = false;
  };
  void Wait(asio::posix::descriptor_base::wait_type type, wait_t* wait);

  const int fd_;
  LoopDescriptor descriptor_;
  wait_t readable_;
  wait_t writable_;
  // Held by this object only; the waits under way can see when it is gone.
  const std::shared_ptr<void> alive_;
};

}  // namespace vantrel
