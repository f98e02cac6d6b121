#include <cutils/properties.h>

#include <fstream>
#include <string>

#include "platform/linux/device_files.h"

namespace {

std::string Trim(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The value of |key| in |file|; the last line that names it wins, as later
// property files override earlier ones on the device. "" when there is none.
std::string FindProperty(std::istream& file, const std::string& key) {
  std::string line;
  std::string value;
  while (std::getline(file, line)) {
    const std::string entry = Trim(line);
    const size_t equals = entry.find('=');
    if (entry.empty() || entry[0] == '#' || equals == std::string::npos) {
      continue;
    }
    if (Trim(entry.substr(0, equals)) == key) {
      value = Trim(entry.substr(equals + 1));
    }
  }
  return value;
}

}  // namespace

extern "C" int8_t property_get_bool(const char* key, int8_t default_value) {
  std::ifstream file(vantrel::GetDeviceFile(vantrel::DeviceFile::kProperties));
  if (!file) return default_value;
  const std::string value = FindProperty(file, key);
  for (const char* yes : {"1", "y", "yes", "on", "true"}) {
    if (value == yes) return 1;
  }
  for (const char* no : {"0", "n", "no", "off", "false"}) {
    if (value == no) return 0;
  }
  return default_value;
}
