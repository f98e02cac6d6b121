// The files of the device's platform that Linux keeps under the same names.
#pragma once

#include <string>

namespace vantrel {

enum class DeviceFile {
  kProperties,   // /system/build.prop
  kPackageList,  // /data/system/packages.list
};

// Where the file is.
const std::string& GetDeviceFile(DeviceFile file);

// For tests: the file that takes its place from now on.
void SetDeviceFile(DeviceFile file, const std::string& path);

}  // namespace vantrel
