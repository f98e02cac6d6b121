#pragma once

#include <map>
#include <sstream>

#include "link/proxy_socket.h"

namespace vantrel {

// A link's open TCP streams by id. Owns no conduit: removing an entry only
// forgets the pointer, after the conduit's Close() has been called.
class StreamTable {
 public:
  using Streams = std::map<unsigned int, ProxySocket::TcpConduitDelegate*>;

  // False, logged, when there is a stream of that id already; it is kept.
  [[nodiscard]] bool Add(ProxySocket::TcpConduitDelegate* conduit);
  // Null when there is no stream of that id.
  ProxySocket::TcpConduitDelegate* Find(unsigned int id) const;
  void Remove(unsigned int id) { streams_.erase(id); }

  // Ascending ids. A loop whose body may remove the current stream steps to
  // the next one first.
  Streams::iterator begin() { return streams_.begin(); }
  Streams::iterator end() { return streams_.end(); }

  // The section of the link's state dump: a heading, then a line per stream.
  void Dump(std::stringstream& out) const;

 private:
  Streams streams_;
};

}  // namespace vantrel
