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
#include <functional>
#include <string>

#include "common/unique_fd.h"
#include "tools/launch/output.h"

namespace vantrel {

class PcapngWriter {
 public:
  enum Direction : uint32_t {
    kFromCompanion = 1,  // inbound, in the format's words
    kToCompanion = 2,    // outbound
  };
  using WallTime = std::chrono::system_clock::time_point;
  using Say = std::function<void(const std::string& message)>;

  // So much is kept for a reader that is slow; one that lets more wait has
  // given up, and so has the capture.
  static constexpr size_t kMaxWaitingBytes = 4 * 1024 * 1024;

  // Creates or empties |path|; of a pipe waits for no reader. |loop| outlives
  // this. |say| tells a person. Throws std::system_error.
  PcapngWriter(asio::io_context& loop, const std::string& path, Say say);

  // A new connection begins; what is written from now on belongs to it.
  // |description| tells readers which link and protocol it is.
  void BeginLink(const std::string& description);

  // Every block is written at once, so that a file can be read while it
  // grows, and as a whole or not at all. What cannot be written any more is
  // given up, with one message; the link goes on.
  void WriteBytes(Direction direction, const std::string& bytes, WallTime now);

  // At the end: gives a reader a last moment, and says what it has not taken.
  void Finish(int timeout_ms);

 private:
  void WriteBlock(uint32_t type, const std::string& body);
  void End(const std::string& reason);

  const Say say_;
  const UniqueFd file_;
  Output output_;
  bool is_over_ = false;
  uint64_t byte_count_ = 0;  // of all blocks
  uint32_t link_count_ = 0;
};

}  // namespace vantrel
