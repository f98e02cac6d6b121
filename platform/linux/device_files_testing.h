// For unit tests and fuzz targets, which link this in place of the device's
// paths.
#pragma once

#include <string>

#include "platform/linux/device_files.h"

namespace vantrel {

// The file that takes its place from now on; at first there is none.
void SetDeviceFile(DeviceFile file, const std::string& path);

}  // namespace vantrel
