// The device's properties: whatever stands before a line, it counts when it is
// the last one of its key, and a comment does not.
#include <cutils/properties.h>

#include "fuzz/fuzz_file.h"
#include "platform/linux/device_files_testing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  static const FuzzFile file;
  SetDeviceFile(DeviceFile::kProperties, file.GetPath());
  const std::string text = FuzzInput(data, size).TakeRest();
  file.SetContents(text);
  const int8_t value = property_get_bool("ro.debuggable", 2);
  FUZZ_CHECK(value >= 0 && value <= 2);
  file.SetContents(text + "\n# ro.debuggable=1\n#ro.debuggable=0");
  FUZZ_CHECK(property_get_bool("ro.debuggable", 2) == value);
  file.SetContents(text + "\n ro.debuggable = on\t\r\n");
  FUZZ_CHECK(property_get_bool("ro.debuggable", 2) == 1);
  return 0;
}
