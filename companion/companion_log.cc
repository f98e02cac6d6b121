#include "companion/companion_log.h"

#include <stdarg.h>
#include <stdio.h>

namespace vantrel {
namespace {

bool detail_wanted = false;

// Longer lines are cut.
constexpr size_t kMaxLineBytes = 1024;

void Print(const char* format, va_list arguments) {
  char message[kMaxLineBytes];
  vsnprintf(message, sizeof(message), format, arguments);
  fprintf(stderr, "vantrel-companion: %s\n", message);
}

}  // namespace

void SetLogDetail(bool on) { detail_wanted = on; }

void Log(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Print(format, arguments);
  va_end(arguments);
}

void LogDetail(const char* format, ...) {
  if (!detail_wanted) return;
  va_list arguments;
  va_start(arguments, format);
  Print(format, arguments);
  va_end(arguments);
}

std::string ToPrintable(const std::string& text) {
  std::string result = text;
  for (char& c : result) {
    if (c < ' ' || c > '~') c = '?';
  }
  return result;
}

}  // namespace vantrel
