#pragma once

#include <string>

namespace vantrel {

// |text| with everything but printable ASCII replaced by '?'.
inline std::string ToPrintable(const std::string& text) {
  std::string result = text;
  for (char& c : result) {
    if (c < ' ' || c > '~') c = '?';
  }
  return result;
}

}  // namespace vantrel
