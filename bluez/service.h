// The service by which a device finds its companion over Bluetooth.
#pragma once

namespace vantrel {

// As BlueZ writes it: in small letters.
constexpr char kServiceUuid[] = "80db46e2-1cd0-41ba-8443-f6e508656f21";
constexpr char kServiceName[] = "vantrel";

}  // namespace vantrel
