#include "support/descriptor.h"

#include <assert.h>
#include <fcntl.h>

#include <utility>

namespace vantrel {

Descriptor::Descriptor(asio::io_context& loop, UniqueFd fd, Handler on_readable,
                       Handler on_writable)
    : fd_(fd.Get()),
      descriptor_(loop),
      readable_{std::move(on_readable)},
      writable_{std::move(on_writable)} {
  fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
  descriptor_.assign(fd_);
  static_cast<void>(fd.Release());
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
  assert(wait->handler != nullptr);
  if (wait->is_under_way) return;
  descriptor_.async_wait(type,
                         lifetime_.MakeHandler([wait](const asio::error_code&) {
                           wait->is_under_way = false;
                           wait->handler();
                         }));
  wait->is_under_way = true;
}

}  // namespace vantrel
