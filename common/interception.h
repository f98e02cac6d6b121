// What the interception rules are made of, as far as more than one part of the
// system must know it.
#pragma once

#include <stdint.h>

namespace vantrel {

// The address of interface ifb0. The device's route gives it to the
// applications as their source. As text, and in host byte order.
constexpr char kApplicationAddressText[] = "192.168.167.239";
constexpr uint32_t kApplicationAddress = 0xC0A8A7EF;

}  // namespace vantrel
