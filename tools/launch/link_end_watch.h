#pragma once

#include <asio/io_context.hpp>
#include <functional>

#include "common/unique_fd.h"
#include "support/descriptor.h"
#include "support/timer.h"

namespace vantrel {

// Notices that the other end of a link has gone, while another process reads
// what the link brings. That process sees an end that can be read; Bluetooth
// sockets have another one, which it would only meet once it has something to
// send.
class LinkEndWatch {
 public:
  // Watches a duplicate of |link|. |on_end| is called at most once, with the
  // errno of the link or 0. Throws std::system_error.
  LinkEndWatch(asio::io_context& loop, int link,
               std::function<void(int error)> on_end);

 private:
  void Look();

  const std::function<void(int error)> on_end_;
  const UniqueFd link_;
  Descriptor hang_up_;  // readable once the end has gone
  Timer pause_;
};

}  // namespace vantrel
