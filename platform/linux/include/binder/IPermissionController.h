// Stands in for the device's permission service on Linux.
#pragma once

#include <binder/IServiceManager.h>
#include <sys/types.h>
#include <utils/String16.h>
#include <utils/Vector.h>

namespace android {

class IPermissionController : public virtual RefBase {
 public:
  // The permission service behind |service|; null for a null reference.
  static sp<IPermissionController> asInterface(const sp<IBinder>& service);
  // Adds the packages that share |uid| to |packages|, in the order of
  // /data/system/packages.list.
  virtual void getPackagesForUid(const uid_t uid,
                                 Vector<String16>& packages) = 0;
};

}  // namespace android
