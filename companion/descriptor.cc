#include "companion/descriptor.h"

#include <fcntl.h>

#include <utility>

namespace vantrel {

Descriptor::Descriptor(asio::io_context& loop, int fd, Handler on_readable,
                       Handler on_writable)
    : fd_(fd),
      descriptor_(loop, fd),
      readable_{std::move(on_readable)},
      writable_{std::move(on_writable)},
      alive_(std::make_shared<char>()) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

Descriptor::~Descriptor() = default;

void Descriptor::WaitReadable() {
  Wait(asio::posix::descriptor_base::wait_read, &readable_);
}

void Descriptor::WaitWritable() {
  Wait(asio::posix::descriptor_base::wait_write, &writable_);
}

void Descriptor::Wait(asio::posix::descriptor_base::wait_type type,
                      wait_t* wait) {
  if (wait->is_under_way) return;
  wait->is_under_way = true;
  descriptor_.async_wait(
      type, [wait, alive = std::weak_ptr<void>(alive_)](asio::error_code) {
        if (alive.expired()) return;
        wait->is_under_way = false;
        wait->handler();
      });
}

}  // namespace vantrel
