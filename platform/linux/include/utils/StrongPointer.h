// Stands in for the device's strong pointer on Linux, with the part of its
// interface that the daemon calls.
#pragma once

#include <utility>

namespace android {

// Keeps an object with incStrong() and decStrong() (utils/RefBase.h) alive.
template <typename T>
class sp {
 public:
  sp() = default;
  sp(T* object) : object_(object) {
    if (object_ != nullptr) object_->incStrong(this);
  }
  sp(const sp& other) : sp(other.object_) {}
  sp(sp&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ~sp() {
    if (object_ != nullptr) object_->decStrong(this);
  }
  sp& operator=(sp other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  T* object_ = nullptr;
};

}  // namespace android
