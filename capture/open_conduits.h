#pragma once

#include <set>

namespace vantrel {

class TcpConduit;

// The captured connections that exist at the moment. Each adds and removes
// itself; owns none.
class OpenConduits {
 public:
  void Add(TcpConduit* conduit) { conduits_.insert(conduit); }
  void Remove(TcpConduit* conduit) { conduits_.erase(conduit); }

  // Resets and destroys every one.
  void ResetAll();

 private:
  std::set<TcpConduit*> conduits_;
};

}  // namespace vantrel
