#include "capture/socket_table_path.h"

namespace vantrel {

std::string GetSocketTablePath(const std::string& name) {
  return "/proc/net/" + name;
}

}  // namespace vantrel
