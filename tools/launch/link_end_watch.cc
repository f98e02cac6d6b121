#include "tools/launch/link_end_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <chrono>
#include <utility>

#include "tools/system_failure.h"

namespace vantrel {
namespace {

// How long the other process may read on once the other end of the link has
// gone, before the link is looked at again.
constexpr std::chrono::seconds kReadingTime{1};

}  // namespace

LinkEndWatch::LinkEndWatch(asio::io_context& loop, int link,
                           std::function<void(int error)> on_end)
    : on_end_(std::move(on_end)),
      link_(fcntl(link, F_DUPFD_CLOEXEC, 0)),
      hang_up_(loop, epoll_create1(EPOLL_CLOEXEC)),
      pause_(loop) {
  // Asked for nothing, this tells of errors and hang-ups alone: what the other
  // process reads does not wake us.
  epoll_event only_the_end = {};
  if (epoll_ctl(hang_up_.native_handle(), EPOLL_CTL_ADD, link_.Get(),
                &only_the_end) != 0) {
    throw SystemFailure("cannot watch the link");
  }
  hang_up_.async_wait(asio::posix::descriptor_base::wait_read,
                      [this](const std::error_code& error) {
                        if (!error) Look();
                      });
}

void LinkEndWatch::Stop() {
  link_.Reset();
  hang_up_.close();
  pause_.cancel();
}

void LinkEndWatch::Look() {
  if (!hang_up_.is_open()) return;
  pollfd link = {link_.Get(), POLLIN, 0};
  if (poll(&link, 1, 0) == 1 && (link.revents & POLLIN) != 0) {
    pause_.expires_after(kReadingTime);
    pause_.async_wait([this](const std::error_code& error) {
      if (!error) Look();
    });
    return;
  }
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(link_.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  on_end_(error);
}

}  // namespace vantrel
