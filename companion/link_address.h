#pragma once

#include <string>

namespace vantrel {

// Where devices connect to: "unix:PATH", "tcp:HOST:PORT" or "rfcomm:CHANNEL"
// on any Bluetooth adapter of this machine.
struct LinkAddress {
  enum class Kind { kUnix, kTcp, kRfcomm };

  // False for any other text.
  [[nodiscard]] static bool Parse(const std::string& text, LinkAddress* out);

  Kind kind = Kind::kUnix;
  std::string path_or_host;
  std::string port;  // decimal; "0": the system chooses one
  int channel = 0;   // RFCOMM, 1 to 30
};

}  // namespace vantrel
