// Stands in for the device's UTF-16 string on Linux, with the part of its
// interface that the daemon calls.
#pragma once

#include <stddef.h>

#include <string>

namespace android {

class String16 {
 public:
  String16() = default;
  // From UTF-8; a malformed sequence gives U+FFFD.
  explicit String16(const char* utf8);
  // From |length| UTF-16 units, taken as they are.
  String16(const char16_t* units, size_t length) : units_(units, length) {}

  size_t size() const { return units_.size(); }  // in UTF-16 units
  // The units, zero-terminated; valid until this string changes.
  operator const char16_t*() const { return units_.c_str(); }

 private:
  std::u16string units_;
};

}  // namespace android
