#include "capture/socket_table_path_testing.h"

#include "capture/socket_table_path.h"

namespace vantrel {
namespace {

std::string& Directory() {
  static std::string directory = "/proc/net";
  return directory;
}

}  // namespace

std::string GetSocketTablePath(const std::string& name) {
  return Directory() + "/" + name;
}

void SetSocketTableDirectory(const std::string& directory) {
  Directory() = directory;
}

}  // namespace vantrel
