#pragma once

#include <stdint.h>
#include <sys/stat.h>

#include <chrono>
#include <istream>
#include <map>
#include <string>

#include "support/steady_time.h"

namespace vantrel {

// The names that people know UIDs by, from the device's list of packages.
class PackageNames {
 public:
  PackageNames() = default;  // of nobody
  // |list| is in the form of platform/linux/package_list.h. A UID that several
  // packages share gets all their names, joined by commas. What is not
  // printable ASCII in them is replaced by '?': they are shown in many places.
  explicit PackageNames(std::istream& list);
  // The device's own list; empty where it cannot be read.
  static PackageNames Load();

  // Empty for a UID without a name.
  std::string Find(uint32_t uid) const;

 private:
  std::map<uint32_t, std::string> names_;
};

// The names in the device's list, for one who asks often: packages come and go
// while it runs, so the list is read again once it has changed. It is looked at
// once a second.
class PackageList {
 public:
  static constexpr std::chrono::seconds kLookEvery{1};

  // The names until the next call.
  const PackageNames& GetNames(SteadyTime now);

 private:
  struct stat seen_ = {};  // as it was when it was last read
  SteadyTime next_look_{};
  PackageNames names_;
};

}  // namespace vantrel
