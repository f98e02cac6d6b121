#include <binder/IPermissionController.h>
#include <binder/IServiceManager.h>
#include <utils/String16.h>

#include <fstream>
#include <string>

#include "platform/linux/package_list.h"

namespace android {
namespace {

class PackageListService : public IBinder, public IPermissionController {
 public:
  void getPackagesForUid(const uid_t uid, Vector<String16>& packages) override {
    std::ifstream list(vantrel::GetPackageListPath());
    for (vantrel::package_t package; vantrel::ReadPackage(list, &package);) {
      if (package.uid == uid) packages.add(String16(package.name.c_str()));
    }
  }
};

class ServiceManager : public IServiceManager {
 public:
  sp<IBinder> getService(const String16& name) const override {
    const bool known = std::u16string(name, name.size()) == u"permission" &&
                       std::ifstream(vantrel::GetPackageListPath()).good();
    if (!known) return {};
    return new PackageListService;
  }
};

}  // namespace

sp<IServiceManager> defaultServiceManager() { return new ServiceManager; }

// The one kind of service there is, so what |service| holds needs no check.
sp<IPermissionController> IPermissionController::asInterface(
    const sp<IBinder>& service) {
  return static_cast<PackageListService*>(service.get());
}

}  // namespace android
