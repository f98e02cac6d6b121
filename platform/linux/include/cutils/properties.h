// Stands in for the device's property library on Linux: same name, signature
// and results, so the daemon's sources are compiled unchanged for both.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The value of |key| in /system/build.prop as a boolean, in the device's own
// spellings: 1, y, yes, on, true and 0, n, no, off, false. |default_value|
// when the file or the key is missing or the value is none of them. The file
// is read afresh at each call: it is asked once, at start-up.
int8_t property_get_bool(const char* key, int8_t default_value);

#ifdef __cplusplus
}
#endif
