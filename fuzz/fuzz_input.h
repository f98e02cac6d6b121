// What the fuzz targets share: how a test case is read as a script.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "common/byte_order.h"

namespace vantrel {

// Ends the process as a crash that the fuzzer keeps, and says what is wrong.
#define FUZZ_CHECK(condition)                                           \
  do {                                                                  \
    if (!(condition)) {                                                 \
      fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, \
              #condition);                                              \
      abort();                                                          \
    }                                                                   \
  } while (false)

// A test case, taken from its front. What is missing at its end is zero or
// empty, so every test case is a valid script.
class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size)
      : next_(reinterpret_cast<const char*>(data)), left_(size) {}

  bool IsEmpty() const { return left_ == 0; }
  uint8_t TakeU8() {
    const std::string byte = TakeBytes(1);
    return byte.empty() ? uint8_t{0} : GetU8(byte.data());
  }
  uint16_t TakeLe16() {
    const uint8_t low = TakeU8();
    return static_cast<uint16_t>(TakeU8() << 8 | low);
  }
  std::string TakeBytes(size_t count) {
    std::string bytes(next_, std::min(count, left_));
    next_ += bytes.size();
    left_ -= bytes.size();
    return bytes;
  }
  // A length in one byte, then so many bytes.
  std::string TakeShort() { return TakeBytes(TakeU8()); }
  std::string TakeRest() { return TakeBytes(left_); }

 private:
  const char* next_;
  size_t left_;
};

}  // namespace vantrel
