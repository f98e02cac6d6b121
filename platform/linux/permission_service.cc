#include <binder/IPermissionController.h>
#include <binder/IServiceManager.h>
#include <sys/stat.h>
#include <utils/String16.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/package_list.h"

namespace android {
namespace {

// The list as it was read last. It is asked for every connection, so the file
// is read again only when it has changed.
class PackageList {
 public:
  // Whether the file can be read. Brings this up to date.
  bool Refresh() {
    const std::string path = vantrel::GetPackageListPath();
    struct stat now = {};
    if (stat(path.c_str(), &now) == -1) return false;
    if (IsSame(now)) return true;
    std::ifstream list(path);
    if (!list.good()) return false;
    names_.clear();
    for (vantrel::package_t package; vantrel::ReadPackage(list, &package);) {
      names_[package.uid].push_back(package.name);
    }
    read_ = now;
    return true;
  }
  std::vector<std::string> Get(uid_t uid) const {
    const auto found = names_.find(uid);
    return found == names_.end() ? std::vector<std::string>() : found->second;
  }

 private:
  bool IsSame(const struct stat& now) const {
    return now.st_dev == read_.st_dev && now.st_ino == read_.st_ino &&
           now.st_size == read_.st_size &&
           now.st_mtim.tv_sec == read_.st_mtim.tv_sec &&
           now.st_mtim.tv_nsec == read_.st_mtim.tv_nsec &&
           now.st_ctim.tv_sec == read_.st_ctim.tv_sec &&
           now.st_ctim.tv_nsec == read_.st_ctim.tv_nsec;
  }

  struct stat read_ = {};
  std::map<uid_t, std::vector<std::string>> names_;
};

PackageList& GetPackageList() {
  static PackageList list;
  return list;
}

class PackageListService : public IBinder, public IPermissionController {
 public:
  void getPackagesForUid(const uid_t uid, Vector<String16>& packages) override {
    for (const std::string& name : GetPackageList().Get(uid)) {
      packages.add(String16(name.c_str()));
    }
  }
};

class ServiceManager : public IServiceManager {
 public:
  sp<IBinder> getService(const String16& name) const override {
    const bool known = std::u16string(name, name.size()) == u"permission" &&
                       GetPackageList().Refresh();
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
