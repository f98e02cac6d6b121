#pragma once

#include <assert.h>
#include <stddef.h>

#include <array>

namespace vantrel {

// A queue of at most |Capacity| values, without memory beside its own: there
// may be one for each of many thousand streams.
template <typename Value, size_t Capacity>
class RingQueue {
 public:
  size_t GetSize() const { return size_; }
  bool IsEmpty() const { return size_ == 0; }
  // |index| counts from the oldest one.
  Value& operator[](size_t index) {
    assert(index < size_);
    return values_[(begin_ + index) % Capacity];
  }
  void Push(const Value& value) {
    assert(size_ < Capacity);
    values_[(begin_ + size_++) % Capacity] = value;
  }
  Value Pop() {
    const Value value = (*this)[0];
    begin_ = (begin_ + 1) % Capacity;
    --size_;
    return value;
  }

 private:
  std::array<Value, Capacity> values_;
  size_t begin_ = 0;
  size_t size_ = 0;
};

}  // namespace vantrel
