#include "tools/package_names.h"

#include <fstream>
#include <sstream>

namespace vantrel {

PackageNames::PackageNames(std::istream& list) {
  std::string line;
  while (std::getline(list, line)) {
    std::istringstream fields(line);
    std::string package;
    uint32_t uid;
    if (!(fields >> package >> uid)) continue;
    std::string& name = names_[uid];
    name += (name.empty() ? "" : ",") + package;
  }
}

PackageNames PackageNames::Load() {
  std::ifstream list("/data/system/packages.list");
  return PackageNames(list);
}

std::string PackageNames::Find(uint32_t uid) const {
  if (uid == kNobodyUid) return "nobody (control traffic and unknown owners)";
  const auto found = names_.find(uid);
  return found == names_.end() ? "" : found->second;
}

}  // namespace vantrel
