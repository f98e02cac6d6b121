// Readers and writers of the integers in wire formats. The byte order is part
// of each name, so a field that differs shows at the call.
#pragma once

#include <stdint.h>

#include <string>

namespace vantrel {

inline void PutU8(std::string* out, uint8_t v) {
  out->push_back(static_cast<char>(v));
}

inline void PutBe16(std::string* out, uint16_t v) {
  PutU8(out, static_cast<uint8_t>(v >> 8));
  PutU8(out, static_cast<uint8_t>(v));
}

inline void PutBe32(std::string* out, uint32_t v) {
  PutBe16(out, static_cast<uint16_t>(v >> 16));
  PutBe16(out, static_cast<uint16_t>(v));
}

inline void PutLe16(std::string* out, uint16_t v) {
  PutU8(out, static_cast<uint8_t>(v));
  PutU8(out, static_cast<uint8_t>(v >> 8));
}

inline void PutLe32(std::string* out, uint32_t v) {
  PutLe16(out, static_cast<uint16_t>(v));
  PutLe16(out, static_cast<uint16_t>(v >> 16));
}

// The readers take |p| with at least as many bytes as they read; the caller
// has checked the length.
inline uint8_t GetU8(const char* p) { return static_cast<uint8_t>(*p); }

inline uint16_t GetBe16(const char* p) {
  return static_cast<uint16_t>(GetU8(p) << 8 | GetU8(p + 1));
}

inline uint32_t GetBe32(const char* p) {
  return uint32_t{GetBe16(p)} << 16 | GetBe16(p + 2);
}

inline uint16_t GetLe16(const char* p) {
  return static_cast<uint16_t>(GetU8(p + 1) << 8 | GetU8(p));
}

inline uint32_t GetLe32(const char* p) {
  return uint32_t{GetLe16(p + 2)} << 16 | GetLe16(p);
}

}  // namespace vantrel
