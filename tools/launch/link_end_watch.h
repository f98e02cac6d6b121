#pragma once

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <functional>

#include "common/unique_fd.h"

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

  // Closes the duplicate and calls nobody any more. This must stay until the
  // loop's pending handlers have run.
  void Stop();

 private:
  void Look();

  const std::function<void(int error)> on_end_;
  UniqueFd link_;
  asio::posix::stream_descriptor hang_up_;  // readable once the end has gone
  asio::steady_timer pause_;
};

}  // namespace vantrel
