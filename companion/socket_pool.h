#pragma once

#include <assert.h>
#include <stddef.h>

namespace vantrel {

// How many sockets the links may have open for their streams and flows: out of
// what the process may open each has some for sure, and shares the rest.
class SocketPool {
 public:
  // One stream or flow, counted as long as it lives, with a socket or without.
  class Place {
   public:
    explicit Place(SocketPool& pool) : pool_(pool) { ++pool_.used_; }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
      assert(pool_.used_ > 0);
      --pool_.used_;
    }

   private:
    SocketPool& pool_;
  };

  // The process may open |max_descriptors|, of which it needs |own| itself. Of
  // |wanted_links|, not 0, it may serve fewer: see GetMaxLinks().
  SocketPool(size_t max_descriptors, size_t own, size_t wanted_links);
  SocketPool(const SocketPool&) = delete;
  SocketPool& operator=(const SocketPool&) = delete;

  // How many links there are descriptors for.
  size_t GetMaxLinks() const { return max_links_; }
  // How many streams one link may have now, and how many flows: as many as are
  // left for all. So one that takes what it can leaves a third to the others;
  // and what each has for sure is not shared.
  size_t GetShare() const;
  // How many streams and flows may be open beyond what links have for sure.
  size_t GetSharedCount() const { return shared_; }

 private:
  size_t max_links_;
  size_t for_sure_;  // streams of each link, and as many flows
  size_t shared_;
  size_t used_ = 0;
};

}  // namespace vantrel
