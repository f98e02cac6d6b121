#include "tools/package_names.h"

#include <fstream>

#include "common/printable.h"
#include "common/uid.h"
#include "platform/linux/package_list.h"

namespace vantrel {

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

std::string PackageNames::Find(uint32_t uid) const {
  if (uid == kNobodyUid) return "nobody (control traffic and unknown owners)";
  const auto found = names_.find(uid);
  return found == names_.end() ? "" : found->second;
}

}  // namespace vantrel
