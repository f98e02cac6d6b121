#include "tools/package_names.h"

#include <fstream>

#include "common/printable.h"
#include "common/uid.h"
#include "platform/linux/package_list.h"

namespace vantrel {
namespace {

// Neither replaced nor written to.
bool IsSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino &&
         a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
         a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

PackageNames::PackageNames(std::istream& list) {
  for (package_t package; ReadPackage(list, &package);) {
    std::string& name = names_[package.uid];
    name += (name.empty() ? "" : ",") + ToPrintable(package.name);
  }
}

PackageNames PackageNames::Load() {
  std::ifstream list(GetPackageListPath());
  return PackageNames(list);
}

const PackageNames& PackageList::GetNames(SteadyTime now) {
  if (now < next_look_) return names_;
  next_look_ = now + kLookEvery;
  struct stat list = {};  // also of one that is not there
  static_cast<void>(stat(GetPackageListPath().c_str(), &list));
  if (!IsSameFile(list, seen_)) names_ = PackageNames::Load();
  seen_ = list;
  return names_;
}

std::string PackageNames::Find(uint32_t uid) const {
  if (uid == kNobodyUid) return "nobody (control traffic and unknown owners)";
  const auto found = names_.find(uid);
  return found == names_.end() ? "" : found->second;
}

}  // namespace vantrel
