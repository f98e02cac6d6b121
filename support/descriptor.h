#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/descriptor_base.hpp>
#include <functional>

#include "common/unique_fd.h"
#include "support/lifetime.h"
#include "support/loop_objects.h"

namespace vantrel {

// One open descriptor in the program's loop. Owns it and makes it non-blocking.
// Reading and writing are the caller's: a handler means that trying is worth
// it, because of bytes, room, an end, an error or a hang-up. Each wait ends
// with one call of its handler, so what nobody waits for wakes nobody.
class Descriptor {
 public:
  using Handler = std::function<void()>;

  // |loop| outlives it. |on_readable| and |on_writable| may destroy it as their
  // last act; one that is never waited for may be left out. Throws
  // std::system_error when the system cannot watch |fd|.
  Descriptor(asio::io_context& loop, UniqueFd fd, Handler on_readable,
             Handler on_writable = {});
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  // No handler is called any more, also not for what has happened already.
  ~Descriptor();

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
  const Lifetime lifetime_;
};

}  // namespace vantrel
