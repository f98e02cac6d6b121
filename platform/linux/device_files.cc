#include "platform/linux/device_files.h"

namespace vantrel {

std::string GetDeviceFile(DeviceFile file) {
  return file == DeviceFile::kProperties ? "/system/build.prop"
                                         : "/data/system/packages.list";
}

}  // namespace vantrel
