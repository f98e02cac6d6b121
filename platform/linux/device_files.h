// The files of the device's platform that Linux keeps under the same names.
#pragma once

#include <string>

namespace vantrel {

enum class DeviceFile {
  kProperties,   // /system/build.prop
  kPackageList,  // /data/system/packages.list
};

// Where the file is. Tests link their own in its place, see
// device_files_testing.h.
std::string GetDeviceFile(DeviceFile file);

}  // namespace vantrel
