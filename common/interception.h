// What the interception rules are made of, as far as more than one part of the
// system must know it.
#pragma once

#include <stdint.h>

namespace vantrel {

// The interface whose address the applications send from.
constexpr char kInterface[] = "ifb0";

// Its address. The device's route gives it to the
// applications as their source. As text, and in host byte order.
constexpr char kApplicationAddressText[] = "192.168.167.239";
constexpr uint32_t kApplicationAddress = 0xC0A8A7EF;

// Where the device's resolver sends its look-ups. No machine has this address;
// they are captured like everything else, and the companion is to know that
// they are for its own name servers. As text, and in host byte order.
constexpr char kNameServerAddressText[] = "192.168.167.53";
constexpr uint32_t kNameServerAddress = 0xC0A8A735;

}  // namespace vantrel
