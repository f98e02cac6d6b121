// The device's list of packages, for the daemon and for the tools: a sound line
// behind any other lines is found, and names come out as UTF-8 or empty.
#include <nlohmann/json.hpp>
#include <sstream>

#include "capture/uid_helper.h"
#include "fuzz/fuzz_file.h"
#include "fuzz/fuzz_log.h"
#include "platform/linux/device_files_testing.h"
#include "platform/linux/package_list.h"
#include "tools/package_names.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  static const bool silenced = SilenceLog();
  static_cast<void>(silenced);
  static const FuzzFile file;
  SetDeviceFile(DeviceFile::kPackageList, file.GetPath());
  const std::string text =
      FuzzInput(data, size).TakeRest() + "\nlast.of.all 4711 0 /data\n";
  file.SetContents(text);
  std::istringstream list(text);
  int looked_up = 0;
  for (package_t package; ReadPackage(list, &package) && looked_up < 8;) {
    ++looked_up;
    nlohmann::json name = UidHelper::FindOwnerPackageName(package.uid);
    FUZZ_CHECK(!name.dump().empty());
  }
  const std::string names = PackageNames::Load().Find(4711);
  const std::string last = "last.of.all";
  FUZZ_CHECK(names.size() >= last.size());
  FUZZ_CHECK(names.substr(names.size() - last.size()) == last);
  return 0;
}
