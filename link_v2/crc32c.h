#pragma once

#include <stddef.h>
#include <stdint.h>

namespace vantrel {

// CRC-32C (Castagnoli, RFC 3720 appendix B.4) of |length| bytes; 0 for none.
// Uses the processor's instruction where there is one.
uint32_t Crc32c(const void* data, size_t length);

// The two ways behind it, apart for tests and benchmarks. Each goes on from the
// running value |crc|, which begins with all bits set and is inverted at the
// end.
using Crc32cUpdate = uint32_t (*)(uint32_t crc, const uint8_t* data,
                                  size_t length);
uint32_t UpdateCrc32cByTable(uint32_t crc, const uint8_t* data, size_t length);
// Null where this processor has no such instruction.
Crc32cUpdate FindCrc32cInstruction();

}  // namespace vantrel
