#include "link_v2/crc32c.h"

#include <string.h>

#include <array>

#if defined(__x86_64__)
#include <nmmintrin.h>
#elif defined(__aarch64__)
#include <arm_acle.h>
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

namespace vantrel {
namespace {

constexpr size_t kStep = 8;  // bytes taken at a time

// Table k has the effect of a byte that k more bytes follow.
using Tables = std::array<std::array<uint32_t, 256>, kStep>;

constexpr Tables MakeTables() {
  constexpr uint32_t kReflectedPolynomial = 0x82F63B78;
  Tables tables = {};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReflectedPolynomial : 0);
    }
    tables[0][i] = crc;
  }
  for (size_t k = 1; k < kStep; ++k) {
    for (size_t i = 0; i < 256; ++i) {
      const uint32_t crc = tables[k - 1][i];
      tables[k][i] = (crc >> 8) ^ tables[0][crc & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

#if defined(__x86_64__)

__attribute__((target("sse4.2"))) uint32_t UpdateByInstruction(
    uint32_t crc, const uint8_t* data, size_t length) {
  uint64_t wide = crc;
  for (; length >= kStep; data += kStep, length -= kStep) {
    uint64_t word;
    memcpy(&word, data, sizeof(word));
    wide = _mm_crc32_u64(wide, word);
  }
  crc = static_cast<uint32_t>(wide);
  for (; length > 0; ++data, --length) crc = _mm_crc32_u8(crc, *data);
  return crc;
}

bool HasInstruction() { return __builtin_cpu_supports("sse4.2") != 0; }

#elif defined(__aarch64__)

__attribute__((target("+crc"))) uint32_t UpdateByInstruction(
    uint32_t crc, const uint8_t* data, size_t length) {
  for (; length >= kStep; data += kStep, length -= kStep) {
    uint64_t word;
    memcpy(&word, data, sizeof(word));
    crc = __crc32cd(crc, word);
  }
  for (; length > 0; ++data, --length) crc = __crc32cb(crc, *data);
  return crc;
}

bool HasInstruction() { return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0; }

#else

constexpr Crc32cUpdate UpdateByInstruction = nullptr;

bool HasInstruction() { return false; }

#endif

}  // namespace

uint32_t UpdateCrc32cByTable(uint32_t crc, const uint8_t* data, size_t length) {
  for (; length >= kStep; data += kStep, length -= kStep) {
    crc ^= static_cast<uint32_t>(data[0]) |
           static_cast<uint32_t>(data[1]) << 8 |
           static_cast<uint32_t>(data[2]) << 16 |
           static_cast<uint32_t>(data[3]) << 24;
    crc = kTables[7][crc & 0xFF] ^ kTables[6][(crc >> 8) & 0xFF] ^
          kTables[5][(crc >> 16) & 0xFF] ^ kTables[4][crc >> 24] ^
          kTables[3][data[4]] ^ kTables[2][data[5]] ^ kTables[1][data[6]] ^
          kTables[0][data[7]];
  }
  for (; length > 0; ++data, --length) {
    crc = (crc >> 8) ^ kTables[0][(crc ^ *data) & 0xFF];
  }
  return crc;
}

Crc32cUpdate FindCrc32cInstruction() {
  return HasInstruction() ? UpdateByInstruction : nullptr;
}

uint32_t Crc32c(const void* data, size_t length) {
  static const Crc32cUpdate instruction = FindCrc32cInstruction();
  static const Crc32cUpdate update =
      instruction != nullptr ? instruction : UpdateCrc32cByTable;
  return ~update(0xFFFFFFFF, static_cast<const uint8_t*>(data), length);
}

}  // namespace vantrel
