// The companion's own log: one line each on standard error, written whole,
// beginning with the program's name.
#pragma once

#include <string>

namespace vantrel {

// Whether LogDetail() prints. Off at the start of the program.
void SetLogDetail(bool on);

// What a person wants to see of normal work, and everything that failed.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
// What happens so often that it is printed on request only.
void LogDetail(const char* format, ...) __attribute__((format(printf, 1, 2)));

// |text| with everything but printable ASCII replaced by '?': text from the
// device or from a library must not be able to steer a terminal or to forge a
// line of its own.
std::string ToPrintable(const std::string& text);

}  // namespace vantrel
