#pragma once

#include <stdint.h>

#include <map>
#include <sstream>
#include <string>

#include "link/proxy_socket.h"

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

  // Asks each stream, in ascending order of ids, for one chunk. Calls
  // |handle|(conduit, chunk) for those that have something, with a null |chunk|
  // where the application's side has ended; |handle| may close that stream.
  // Returns whether there were any. As every stream gives one chunk at most,
  // busy streams share the link in turns.
  template <typename Handle>
  bool TakeTurns(Handle handle) {
    bool handled = false;
    for (auto next = streams_.begin(); next != streams_.end();) {
      // Step first: closing the stream removes its entry.
      ProxySocket::TcpConduitDelegate& conduit = *(next++)->second;
      if (!conduit.HasBuffer()) continue;
      handled = true;
      std::string chunk;
      handle(conduit, conduit.GetNextBuffer(&chunk) ? &chunk : nullptr);
    }
    return handled;
  }

  // The section of the link's state dump: a heading, then a line per stream.
  void Dump(std::stringstream& out) const;

 private:
  std::map<uint32_t, ProxySocket::TcpConduitDelegate*> streams_;
};

}  // namespace vantrel
