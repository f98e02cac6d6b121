#pragma once

#include <string>

namespace vantrel {

// The file with the kernel's socket table |name|: "tcp", "udp6", ... Tests link
// their own in its place, see socket_table_path_testing.h.
std::string GetSocketTablePath(const std::string& name);

}  // namespace vantrel
