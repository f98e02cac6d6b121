#include "tools/launch/link_end_watch.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <chrono>
#include <utility>

#include "support/system_failure.h"

namespace vantrel {
namespace {

// How long the other process may read on once the other end of the link has
// gone, before the link is looked at again.
constexpr std::chrono::seconds kReadingTime{1};

}  // namespace

LinkEndWatch::LinkEndWatch(asio::io_context& loop, int link,
                           std::function<void(int error)> on_end)
    : on_end_(std::move(on_end)),
      link_(Duplicate(link)),
      hang_up_(loop, UniqueFd(epoll_create1(EPOLL_CLOEXEC)),
               [this] { Look(); }),
      pause_(loop, [this] { Look(); }) {
  // Asked for nothing, this tells of errors and hang-ups alone: what the other
  // process reads does not wake us.
  epoll_event only_the_end = {};
  if (epoll_ctl(hang_up_.GetFd(), EPOLL_CTL_ADD, link_.Get(), &only_the_end) !=
      0) {
    throw SystemFailure("cannot watch the link");
  }
  hang_up_.WaitReadable();
}

void LinkEndWatch::Look() {
  pollfd link = {link_.Get(), POLLIN, 0};
  if (poll(&link, 1, 0) == 1 && (link.revents & POLLIN) != 0) {
    pause_.WaitFor(kReadingTime);
    return;
  }
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(link_.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  on_end_(error);
}

}  // namespace vantrel
