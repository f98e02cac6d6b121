#pragma once

#include <errno.h>

#include <string>
#include <system_error>

namespace vantrel {

// What to throw when the system refused something and a person must read why:
// what() is |doing|, if given, and the reason from errno.
inline std::system_error SystemFailure(int error) {
  return std::system_error(error, std::generic_category());
}

inline std::system_error SystemFailure(const std::string& doing) {
  return std::system_error(errno, std::generic_category(), doing);
}

}  // namespace vantrel
