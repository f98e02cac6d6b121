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
#define VANTREL_CRC32C_TARGET __attribute__((target("sse4.2")))

VANTREL_CRC32C_TARGET inline uint32_t TakeByte(uint32_t crc, uint8_t byte) {
  return _mm_crc32_u8(crc, byte);
}
VANTREL_CRC32C_TARGET inline uint32_t TakeWord(uint32_t crc, uint64_t word) {
  return static_cast<uint32_t>(_mm_crc32_u64(crc, word));
}
bool HasInstruction() { return __builtin_cpu_supports("sse4.2") != 0; }

#elif defined(__aarch64__)
#define VANTREL_CRC32C_TARGET __attribute__((target("+crc")))

VANTREL_CRC32C_TARGET inline uint32_t TakeByte(uint32_t crc, uint8_t byte) {
  return __crc32cb(crc, byte);
}
VANTREL_CRC32C_TARGET inline uint32_t TakeWord(uint32_t crc, uint64_t word) {
  return __crc32cd(crc, word);
}
bool HasInstruction() { return (getauxval(AT_HWCAP) & HWCAP_CRC32) != 0; }

#endif

#ifdef VANTREL_CRC32C_TARGET

// The instruction takes three cycles, but the next one can begin after one. So
// three runs of bytes are taken at the same time.
constexpr size_t kRunBytes = 256;

// The effect of |kRunBytes| zero bytes on a running value, by its bytes.
using ShiftTables = std::array<std::array<uint32_t, 256>, 4>;

constexpr ShiftTables MakeShiftTables() {
  std::array<uint32_t, 32> by_bit = {};
  for (size_t bit = 0; bit < by_bit.size(); ++bit) {
    uint32_t crc = uint32_t{1} << bit;
    for (size_t i = 0; i < kRunBytes; ++i) {
      crc = (crc >> 8) ^ kTables[0][crc & 0xFF];
    }
    by_bit[bit] = crc;
  }
  ShiftTables tables = {};
  for (size_t byte = 0; byte < tables.size(); ++byte) {
    for (size_t value = 0; value < 256; ++value) {
      for (size_t bit = 0; bit < 8; ++bit) {
        if ((value >> bit & 1) != 0) {
          tables[byte][value] ^= by_bit[8 * byte + bit];
        }
      }
    }
  }
  return tables;
}

constexpr ShiftTables kShiftTables = MakeShiftTables();

uint32_t ShiftByRun(uint32_t crc) {
  return kShiftTables[0][crc & 0xFF] ^ kShiftTables[1][(crc >> 8) & 0xFF] ^
         kShiftTables[2][(crc >> 16) & 0xFF] ^ kShiftTables[3][crc >> 24];
}

uint64_t LoadWord(const uint8_t* data) {
  uint64_t word;
  memcpy(&word, data, sizeof(word));
  return word;
}

VANTREL_CRC32C_TARGET uint32_t UpdateByInstruction(uint32_t crc,
                                                   const uint8_t* data,
                                                   size_t length) {
  for (; length >= 3 * kRunBytes; length -= 3 * kRunBytes) {
    uint32_t second = 0;
    uint32_t third = 0;
    for (size_t i = 0; i < kRunBytes; i += kStep, data += kStep) {
      crc = TakeWord(crc, LoadWord(data));
      second = TakeWord(second, LoadWord(data + kRunBytes));
      third = TakeWord(third, LoadWord(data + 2 * kRunBytes));
    }
    data += 2 * kRunBytes;
    crc = ShiftByRun(ShiftByRun(crc) ^ second) ^ third;
  }
  for (; length >= kStep; data += kStep, length -= kStep) {
    crc = TakeWord(crc, LoadWord(data));
  }
  for (; length > 0; ++data, --length) crc = TakeByte(crc, *data);
  return crc;
}

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
