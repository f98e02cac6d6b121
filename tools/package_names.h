#pragma once

#include <stdint.h>

#include <istream>
#include <map>
#include <string>

namespace vantrel {

// The names that people know UIDs by, from the device's list of packages.
class PackageNames {
 public:
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

}  // namespace vantrel
