// The platform's list of installed packages, one a line: name, UID, and more
// fields that nobody here needs, with blanks between. Several packages may
// share a UID.
#pragma once

#include <stdint.h>

#include <istream>
#include <sstream>
#include <string>

#include "platform/linux/device_files.h"

namespace vantrel {

inline std::string GetPackageListPath() {
  return GetDeviceFile(DeviceFile::kPackageList);
}

struct package_t {
  std::string name;
  uint32_t uid = 0;
};

// The next package in |list|; lines that are not in the form above are skipped.
// False at the end.
inline bool ReadPackage(std::istream& list, package_t* package) {
  for (std::string line; std::getline(list, line);) {
    std::istringstream fields(line);
    if (fields >> package->name >> package->uid) return true;
  }
  return false;
}

}  // namespace vantrel
