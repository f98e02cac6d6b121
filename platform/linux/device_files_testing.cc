#include "platform/linux/device_files_testing.h"

namespace vantrel {
namespace {

std::string& Path(DeviceFile file) {
  static std::string properties, package_list;
  return file == DeviceFile::kProperties ? properties : package_list;
}

}  // namespace

std::string GetDeviceFile(DeviceFile file) { return Path(file); }

void SetDeviceFile(DeviceFile file, const std::string& path) {
  Path(file) = path;
}

}  // namespace vantrel
