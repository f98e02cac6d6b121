#pragma once

#include <stdint.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace vantrel {

// Whether |value| is an integer that an Integer can hold. The library itself
// would cut one that cannot be held, and read a fraction, too; to do so with a
// fraction that is too large is undefined.
template <typename Integer, typename Json>
bool IsInteger(const Json& value) {
  using Limits = std::numeric_limits<Integer>;
  if (!value.is_number_integer()) return false;
  if (value.is_number_unsigned() || value.template get<int64_t>() >= 0) {
    return value.template get<uint64_t>() <=
           static_cast<uint64_t>(Limits::max());
  }
  return Limits::is_signed &&
         value.template get<int64_t>() >= static_cast<int64_t>(Limits::min());
}

// Throws std::runtime_error when |value| is no such integer.
template <typename Json, typename Integer>
void ReadInteger(const Json& value, Integer* number) {
  if (!IsInteger<Integer>(value)) {
    throw std::runtime_error(
        "a number is out of range: " +
        (value.is_number() ? value.dump() : std::string(value.type_name())));
  }
  value.get_to(*number);
}

}  // namespace vantrel
