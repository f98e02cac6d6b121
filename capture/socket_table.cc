#include "capture/socket_table.h"

#include <errno.h>
#include <string.h>

#include "common/log.h"
#include "common/log_limiter.h"

namespace vantrel {
namespace {

std::string& Directory() {
  static std::string directory = "/proc/net";
  return directory;
}

}  // namespace

ScopedFile OpenSocketTable(const std::string& name) {
  const std::string path = Directory() + "/" + name;
  ScopedFile table(fopen(path.c_str(), "rte"));
  if (!table) {
    const int error = errno;
    static LogLimiter limiter;
    if (limiter.AdmitFailure(error)) {
      LOGE("Error opening %s: %s", path.c_str(), strerror(error));
    }
    return nullptr;
  }
  // Only a heading is expected here; a table without rows ends the scans.
  static_cast<void>(!fscanf(table.get(), "%*[^\n]\n"));
  return table;
}

void SetSocketTableDirectory(const std::string& directory) {
  Directory() = directory;
}

}  // namespace vantrel
