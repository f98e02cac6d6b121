#include "common/bluetooth_address.h"

#include <stddef.h>

#include <charconv>

namespace vantrel {

std::optional<BluetoothAddress> ParseBluetoothAddress(const std::string& text) {
  BluetoothAddress address = {};
  if (text.size() != 3 * address.size() - 1) return std::nullopt;
  for (size_t i = 0; i < address.size(); ++i) {
    const char* const digits = text.data() + 3 * i;
    if (i > 0 && digits[-1] != ':') return std::nullopt;
    const auto end = std::from_chars(digits, digits + 2, address[i], 16);
    if (end.ec != std::errc() || end.ptr != digits + 2) return std::nullopt;
  }
  return address;
}

std::string ToText(const BluetoothAddress& address) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const uint8_t byte : address) {
    if (!text.empty()) text += ':';
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

}  // namespace vantrel
