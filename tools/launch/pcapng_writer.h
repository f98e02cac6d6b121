// Writes what crosses the link as a pcapng file: one section, in it one
// interface for each connection of the link (link type 147, the first of those
// for private use), and one enhanced packet for each run of bytes.
// The direction stands in the packet's flags option and not in a byte in front
// of the data, so the packets of one direction of one interface, put together,
// are exactly the byte stream of that direction. Where one packet ends and the
// next begins means nothing: a message may lie across several.
#pragma once

#include <stdint.h>

#include <chrono>
#include <string>

#include "programs/unique_fd.h"

namespace vantrel {

class PcapngWriter {
 public:
  enum Direction : uint32_t {
    kFromCompanion = 1,  // inbound, in the format's words
    kToCompanion = 2,    // outbound
  };
  using WallTime = std::chrono::system_clock::time_point;

  // Creates or empties |path|. Throws std::system_error.
  explicit PcapngWriter(const std::string& path);

  // A new connection begins; what is written from now on belongs to it.
  // |description| tells readers which link and protocol it is.
  void BeginLink(const std::string& description);

  // Every block is written at once, so that a file can be read while it
  // grows. A file that cannot be written any more is given up, with one line
  // on standard error; the link goes on.
  void WriteBytes(Direction direction, const std::string& bytes, WallTime now);

 private:
  void WriteBlock(uint32_t type, const std::string& body);

  UniqueFd file_;  // none once given up
  uint32_t link_count_ = 0;
};

}  // namespace vantrel
