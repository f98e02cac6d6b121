// For the fuzz targets of code that opens a file by its name.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz_input.h"

namespace vantrel {

// A file in memory that has a name, for this process only.
class FuzzFile {
 public:
  FuzzFile() : fd_(memfd_create("fuzz", MFD_CLOEXEC)) { FUZZ_CHECK(fd_ != -1); }
  FuzzFile(const FuzzFile&) = delete;
  FuzzFile& operator=(const FuzzFile&) = delete;
  ~FuzzFile() { close(fd_); }

  static constexpr char kDirectory[] = "/proc/self/fd";
  std::string GetName() const { return std::to_string(fd_); }
  std::string GetPath() const { return kDirectory + ("/" + GetName()); }

  void SetContents(const std::string& text) const {
    FUZZ_CHECK(ftruncate(fd_, 0) == 0);
    FUZZ_CHECK(pwrite(fd_, text.data(), text.size(), 0) ==
               static_cast<ssize_t>(text.size()));
  }

 private:
  const int fd_;
};

}  // namespace vantrel
