#include <binder/IPermissionController.h>
#include <binder/IServiceManager.h>
#include <utils/String16.h>

#include <fstream>
#include <sstream>
#include <string>

namespace android {
namespace {

// One package a line: "package uid debugflag datadir seinfo gids ...".
constexpr char kPackageList[] = "/data/system/packages.list";

class PackageListService : public IBinder, public IPermissionController {
 public:
  void getPackagesForUid(const uid_t uid, Vector<String16>& packages) override {
    std::ifstream list(kPackageList);
    std::string line;
    while (std::getline(list, line)) {
      std::istringstream fields(line);
      std::string package;
      uid_t owner;
      if (fields >> package >> owner && owner == uid) {
        packages.add(String16(package.c_str()));
      }
    }
  }
};

class ServiceManager : public IServiceManager {
 public:
  sp<IBinder> getService(const String16& name) const override {
    const bool known = std::u16string(name, name.size()) == u"permission" &&
                       std::ifstream(kPackageList).good();
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
