#pragma once

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <string>

#include "common/link_address.h"
#include "common/unique_fd.h"
#include "support/descriptor.h"
#include "support/peer_socket.h"
#include "support/socket_file.h"
#include "support/timer.h"

namespace vantrel {

// Waits for devices at one address.
class LinkListener {
 public:
  // |peer| says who has connected, for the log.
  using OnLink = std::function<void(UniqueFd fd, const std::string& peer)>;
  struct settings_t {
    // Whether TCP links may come from other machines.
    bool allows_remote_links = false;
    LinkSecurity security = LinkSecurity::kMedium;
  };

  LinkListener(asio::io_context& loop, OnLink on_link);
  LinkListener(const LinkListener&) = delete;
  LinkListener& operator=(const LinkListener&) = delete;

  // Begins to listen and to accept. False after a failure, which is logged. A
  // socket file on which nobody listens any more is replaced.
  [[nodiscard]] bool Open(const link_address_t& address,
                          const settings_t& settings);
  // After a handler of the loop has failed: it may have been ours.
  void GoOn() { socket_->WaitReadable(); }

 private:
  // Each logs its failure.
  bool OpenUnix(const link_address_t& address);
  bool OpenTcp(const link_address_t& address, bool allows_remote_links);
  bool OpenRfcomm(const link_address_t& address, LinkSecurity security);
  bool Listen(UniqueFd fd, const std::string& where);
  void OnReadable();

  asio::io_context& loop_;
  const OnLink on_link_;
  Timer retry_;
  std::unique_ptr<Descriptor> socket_;
  SocketFile file_;  // of a unix: address
};

}  // namespace vantrel
