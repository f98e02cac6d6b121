#pragma once

#include <stdio.h>

#include <memory>
#include <string>

namespace vantrel {

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

// Opens one of the kernel's socket tables ("tcp", "udp6", ...) and skips its
// heading, so that the first row comes next. Null on failure, which is logged;
// want of descriptors at most once a second.
ScopedFile OpenSocketTable(const std::string& name);

// For tests: the directory that stands for /proc/net from now on.
void SetSocketTableDirectory(const std::string& directory);

}  // namespace vantrel
