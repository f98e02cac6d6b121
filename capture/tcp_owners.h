#pragma once

#include <stdint.h>
#include <time.h>

#include <unordered_set>
#include <vector>

#include "capture/socket_table.h"
#include "common/host_and_port.h"

namespace vantrel {

// Whether the connection of |row| has, so that it has no owner any more.
bool HasEnded(const tcp_row_t& row);

// Whose captured TCP connections are, from the kernel's tables of sockets.
//
// A row counts for its own connection only: it is at the applications' address,
// its other end is where the connection was to go, and it has not ended. The
// kernel keeps what has ended in the table for a minute, with UID 0.
//
// The kernel needs long for a table, and all else waits meanwhile. So what one
// look has read also serves the connections that waited to be accepted while it
// was read, as the table itself shows. They are accepted in their order, and
// none that came later, perhaps from the same port, is taken for one of them.
class TcpOwners {
 public:
  struct connection_t {
    HostAndPort local;         // our end of the accepted connection
    HostAndPort peer;          // its other end, as the packet filter shows it
    HostAndPort destination;   // where its application wanted to go
    uint16_t source_port = 0;  // the application's own; 0: not known
  };

  // The owner, or kNobodyUid. Without the source port this is the owner of all
  // connections to |destination|, if they have only one. Looks once more for a
  // connection of which there is no trace: a table is read in pieces, and a row
  // can be passed over while others come and go.
  uint32_t Find(const connection_t& connection);

 private:
  // A row of an application. Words are as in the table.
  struct owned_t {
    uint16_t source_port;
    uint16_t destination_port;
    uint32_t destination;
    uint32_t uid;
  };

  bool IsServedByLastLook(const connection_t& connection);
  // Whether another look could tell more: both tables were read, and the row
  // of |connection| is in neither.
  bool Look(const connection_t& connection);
  // Whether the row of |connection| was met, ended or not. Stops there if
  // nobody waits.
  template <typename Row>
  bool ReadRows(SocketTable* table, const connection_t& connection);
  // Whether |row| is that of |connection|.
  bool Note(const tcp_row_t& row, const connection_t& connection);
  uint32_t GetOwner(const connection_t& connection) const;

  // The last look.
  timespec end_ = {};
  std::unordered_set<HostAndPort> waiting_;  // peers that nobody had accepted
  std::vector<owned_t> owned_;
};

}  // namespace vantrel
