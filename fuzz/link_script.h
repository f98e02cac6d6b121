#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>
#include <utility>

#include "fuzz/fuzz_messages.h"
#include "link/proxy_socket.h"
#include "link_v2/message_decoder.h"

namespace vantrel {

// Runs the daemon as far as it is no process: the link of |protocol| with real
// servers and conduits and the reactor, in a private network. The script plays
// applications, companion and control port. Aborts when the daemon says what it
// must not say, mixes up the bytes of a stream, or keeps a descriptor.
void RunLinkScript(FuzzInput* input, int protocol);

// The steps of a script, each one byte: the kind in the low four bits, and in
// the high four which application it is about.
enum : uint8_t {
  STEP_COMPANION_SAYS = 0,  // the message, as TakeMessage() reads it
  STEP_CONNECT = 1,         // one application more
  STEP_SEND = 2,            // u16: the number of bytes
  STEP_END = 3,             // the application sends no more
  STEP_GO = 4,              // the application is gone
  STEP_READ = 5,            // the application reads
  STEP_LINK_READ = 6,       // the companion reads; u8: how many pieces
  STEP_DATAGRAM = 7,        // u8: to which remote; u16: bytes
  STEP_DIVERTED = 8,        // u8: bytes; to the UDP server's own socket
  STEP_CONTROL = 9,         // the packet, as TakeShort()
  STEP_WAIT = 10,           // u8: seconds pass
  STEP_PASS = 11,           // nothing but a pass of the loop
  STEP_LINK_ENDS = 12,
};

// What the daemon sends, looked at as the companion does.
class DaemonTalk {
 public:
  explicit DaemonTalk(int protocol) : protocol_(protocol) {}

  void Add(const std::string& bytes);

  // The byte at |position| of what the application of stream |id| sends.
  static char PatternAt(uint32_t id, size_t position);

 private:
  bool NextV1();
  bool NextV2();
  void OnConnect(uint32_t id);
  void OnData(uint32_t id, const std::string& bytes);
  void OnClose(uint32_t id);

  const int protocol_;
  std::string bytes_;                // not handled yet
  MessageDecoder decoder_;           // of protocol 20
  std::map<uint32_t, size_t> open_;  // the bytes that have come, by stream
  uint32_t last_id_ = 0;
};

}  // namespace vantrel
