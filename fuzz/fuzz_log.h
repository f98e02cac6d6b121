// For the fuzz targets: they look at results, not at the log.
#pragma once

#include <string>

#include "platform/linux/log_sink.h"

namespace vantrel {

// Call once before the first input.
inline bool SilenceLog() {
  SetLogSink([](int, const std::string&, const std::string&) {});
  return true;
}

}  // namespace vantrel
