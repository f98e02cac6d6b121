// Stands in for the device's service manager on Linux. There is one service,
// "permission" (binder/IPermissionController.h); it is there for as long as
// the file it answers from can be read.
#pragma once

#include <utils/String16.h>

#include <memory>
#include <utility>

namespace android {

// A shared reference, as the device's strong pointer.
template <typename T>
class sp {
 public:
  sp() = default;
  sp(std::shared_ptr<T> object) : object_(std::move(object)) {}
  T* get() const { return object_.get(); }
  T* operator->() const { return object_.get(); }
  T& operator*() const { return *object_; }
  const std::shared_ptr<T>& shared() const { return object_; }

 private:
  std::shared_ptr<T> object_;
};

class IBinder {
 public:
  virtual ~IBinder() = default;
};

class IServiceManager {
 public:
  virtual ~IServiceManager() = default;
  // The service of that name; a null reference when there is none.
  virtual sp<IBinder> getService(const String16& name) const = 0;
};

// The process's service manager; never null here.
sp<IServiceManager> defaultServiceManager();

}  // namespace android
