// For unit tests, fuzz targets and benchmarks, which link this in place of the
// kernel's directory.
#pragma once

#include <string>

namespace vantrel {

// The directory that stands for /proc/net from now on; at first it is that.
void SetSocketTableDirectory(const std::string& directory);

}  // namespace vantrel
