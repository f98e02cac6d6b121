#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// Where the lock stands unless a command line names another file.
constexpr char kLockFile[] = "/run/vantrel.lock";

// A daemon runs on this device, started by somebody else.
class DeviceInUse : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The right to run a daemon on this device: the interception rules have fixed
// names, and two daemons would take each other's away. Held until destroyed,
// and not by the programs that its owner starts.
class LockFile {
 public:
  // Creates |path| where it is missing, and writes into no file of another
  // kind. Throws DeviceInUse when another process holds the lock,
  // std::runtime_error when the file cannot be had.
  explicit LockFile(const std::string& path);

 private:
  UniqueFd file_;
};

// Who holds the lock, in words; none when nobody does. Takes nothing.
std::optional<std::string> FindLockHolder(const std::string& path);

}  // namespace vantrel
