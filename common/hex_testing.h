// For unit tests: wire bytes spelled out.
#pragma once

#include <string>

namespace vantrel {

// The bytes that |hex| spells, two digits each; blanks are for the reader.
inline std::string Bytes(const std::string& hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

}  // namespace vantrel
