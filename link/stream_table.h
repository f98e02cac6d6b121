#pragma once

#include <stdint.h>

#include <map>
#include <sstream>
#include <string>

#include "link/proxy_socket.h"

// How an application's bytes get onto the link:
//
//   TcpConduit::OnReadReady   reads a chunk; calls link.OnTcpDataAvailable()
//   OnTcpDataAvailable        MarkReady() here, and registers the link for
//                             writing
//   link.OnWriteReady         TakeTurns(), while LinkOutput is not congested:
//                             a pass that has begun is finished, so that its
//                             queue exceeds the bound by one message a stream;
//                             then it drains the queue into the socket
//   TcpConduit::GetNextBuffer gives a chunk away, and reads again where it had
//                             stopped
//   an acknowledgement        Acknowledge() gives one credit back, and the link
//                             registers for writing: a stream that ran dry
//                             would never be asked again
//
// The link stays registered for writing while its queue is not empty, while it
// is congested, and while the last turns found something.

namespace vantrel {

// A link's open TCP streams by id, and what both protocols do with them. Owns
// no conduit: removing an entry only forgets the pointer, after the conduit's
// Close() has been called.
class StreamTable {
 public:
  // False, logged, when there is a stream of that id already; it is kept.
  [[nodiscard]] bool Add(ProxySocket::TcpConduitDelegate* conduit);
  // Null when there is no stream of that id.
  ProxySocket::TcpConduitDelegate* Find(uint32_t id) const;

  // Closes the conduit and forgets it. False when there is no such stream.
  [[nodiscard]] bool Close(uint32_t id);
  // Hands on that one write was acknowledged. False as above.
  [[nodiscard]] bool Acknowledge(uint32_t id);

  // The stream may have something now; does nothing for an unknown id. Only
  // streams marked so are asked, so that a link with many idle ones does not
  // walk over all of them for each message.
  void MarkReady(uint32_t id);

  // Asks each stream that may have something, in ascending order of ids, for
  // one chunk. Calls |handle|(conduit, chunk) for those that have, with a null
  // |chunk| where the application's side has ended; |handle| may close that
  // stream. Returns whether there were any. As every stream gives one chunk at
  // most, busy streams share the link in turns.
  template <typename Handle>
  bool TakeTurns(Handle handle) {
    bool handled = false;
    for (auto next = ready_.begin(); next != ready_.end();) {
      const auto [id, conduit] = *next;
      if (!conduit->HasBuffer()) {
        next = ready_.erase(next);
        continue;
      }
      handled = true;
      std::string chunk;
      handle(*conduit, conduit->GetNextBuffer(&chunk) ? &chunk : nullptr);
      // Closing the stream has removed its entry.
      next = ready_.upper_bound(id);
    }
    return handled;
  }

  // The section of the link's state dump: a heading, then a line per stream.
  void Dump(std::stringstream& out) const;

 private:
  using Conduits = std::map<uint32_t, ProxySocket::TcpConduitDelegate*>;

  Conduits streams_;
  Conduits ready_;  // those of |streams_| that may have something
};

}  // namespace vantrel
