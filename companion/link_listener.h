#pragma once

#include <sys/types.h>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>

#include "common/link_address.h"
#include "companion/descriptor.h"
#include "programs/peer_socket.h"
#include "programs/unique_fd.h"

namespace vantrel {

// Waits for devices at one address.
class LinkListener {
 public:
  // Owns |fd|; |peer| says who has connected, for the log.
  using OnLink = std::function<void(int fd, const std::string& peer)>;
  struct settings_t {
    // Whether TCP links may come from other machines.
    bool allows_remote_links = false;
    LinkSecurity security = LinkSecurity::kMedium;
  };

  LinkListener(asio::io_context& loop, OnLink on_link);
  LinkListener(const LinkListener&) = delete;
  LinkListener& operator=(const LinkListener&) = delete;
  // Removes the socket file that it made, unless somebody else took its place.
  ~LinkListener();

  // Begins to listen and to accept. False after a failure, which is logged. A
  // socket file on which nobody listens any more is replaced.
  [[nodiscard]] bool Open(const link_address_t& address,
                          const settings_t& settings);

 private:
  // Each logs its failure.
  bool OpenUnix(const link_address_t& address);
  bool OpenTcp(const link_address_t& address, bool allows_remote_links);
  bool OpenRfcomm(const link_address_t& address, LinkSecurity security);
  bool Listen(UniqueFd fd, const std::string& where);
  // Keeps others out of the socket file at |path|, and remembers which it is.
  // The reason of a failure is in errno.
  bool OwnFile(const std::string& path);
  bool MayConnect(int fd) const;
  void OnReadable();

  asio::io_context& loop_;
  const OnLink on_link_;
  asio::steady_timer retry_;
  std::unique_ptr<Descriptor> socket_;
  bool is_abstract_ = false;  // its name is no file
  // Our socket file and what it was when we made it.
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace vantrel
