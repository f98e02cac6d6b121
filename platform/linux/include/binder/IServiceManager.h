// Stands in for the device's service manager on Linux. There is one service,
// "permission" (binder/IPermissionController.h); it is there for as long as
// the file it answers from can be read.
#pragma once

#include <utils/RefBase.h>
#include <utils/String16.h>

namespace android {

class IBinder : public virtual RefBase {};

class IServiceManager : public virtual RefBase {
 public:
  // The service of that name; a null reference when there is none.
  virtual sp<IBinder> getService(const String16& name) const = 0;
};

// The process's service manager; never null here.
sp<IServiceManager> defaultServiceManager();

}  // namespace android
