// Stands in for the device's reference-counted base class on Linux, with the
// part of its interface that strong pointers call.
#pragma once

#include <utils/StrongPointer.h>

namespace android {

// Deletes itself with its last strong reference. The daemon has one thread, so
// the count needs no lock.
class RefBase {
 public:
  RefBase(const RefBase&) = delete;
  RefBase& operator=(const RefBase&) = delete;
  void incStrong(const void* /*id*/) const { ++strong_count_; }
  void decStrong(const void* /*id*/) const {
    if (--strong_count_ == 0) delete this;
  }

 protected:
  RefBase() = default;
  virtual ~RefBase() = default;

 private:
  mutable int strong_count_ = 0;
};

}  // namespace android
