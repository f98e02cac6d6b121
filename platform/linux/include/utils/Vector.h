// Stands in for the device's vector on Linux, with the part of its interface
// that the daemon calls.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <vector>

namespace android {

template <typename T>
class Vector {
 public:
  size_t size() const { return items_.size(); }
  bool isEmpty() const { return items_.empty(); }
  const T& operator[](size_t index) const { return items_[index]; }
  ssize_t add(const T& item) {
    items_.push_back(item);
    return static_cast<ssize_t>(items_.size()) - 1;
  }

 private:
  std::vector<T> items_;
};

}  // namespace android
