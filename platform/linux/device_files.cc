#include "platform/linux/device_files.h"

namespace vantrel {
namespace {

std::string& Path(DeviceFile file) {
  static std::string properties = "/system/build.prop";
  static std::string package_list = "/data/system/packages.list";
  return file == DeviceFile::kProperties ? properties : package_list;
}

}  // namespace

const std::string& GetDeviceFile(DeviceFile file) { return Path(file); }

void SetDeviceFile(DeviceFile file, const std::string& path) {
  Path(file) = path;
}

}  // namespace vantrel
