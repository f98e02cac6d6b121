#pragma once

#include <assert.h>
#include <stddef.h>

namespace vantrel {

// A number of bytes that several objects may hold together.
class ByteBudget {
 public:
  explicit ByteBudget(size_t limit) : limit_(limit) {}

  void Add(size_t bytes) { used_ += bytes; }
  // |bytes| of those that were added.
  void Release(size_t bytes) {
    assert(bytes <= used_);
    used_ -= bytes;
  }
  size_t GetUsed() const { return used_; }
  bool IsExceeded() const { return used_ > limit_; }

 private:
  const size_t limit_;
  size_t used_ = 0;
};

}  // namespace vantrel
