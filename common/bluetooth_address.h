#pragma once

#include <stdint.h>

#include <array>
#include <optional>
#include <string>

namespace vantrel {

// The six bytes of a Bluetooth device's address, in the order as printed.
using BluetoothAddress = std::array<uint8_t, 6>;

// Of "01:23:45:67:89:aB"; none when |text| is anything else.
std::optional<BluetoothAddress> ParseBluetoothAddress(const std::string& text);

// With capital letters.
std::string ToText(const BluetoothAddress& address);

}  // namespace vantrel
