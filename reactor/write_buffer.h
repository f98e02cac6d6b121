#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <string>

#include "reactor/socket.h"

namespace vantrel {

// The outgoing queue of an object that must not block on a full socket. Whole
// byte strings go in; Drain() writes as much as the socket takes. The queue
// itself has no cap: its owner looks at the counts before it appends.
class WriteBuffer {
 public:
  // The largest number of bytes handed to one write; 0, the initial value,
  // means no limit.
  void SetMaxWriteSize(uint16_t bytes) { max_write_size_ = bytes; }

  bool IsEmpty() const { return queue_.empty(); }
  void Append(std::string bytes);

  // Writes until the queue is empty or the socket is full, and returns true;
  // the owner waits for OnWriteReady() while anything is left. False after a
  // hard write error, which is logged; the queue is then as it was.
  [[nodiscard]] bool Drain(const Socket& socket);

  size_t GetQueuedItemCount() const { return queue_.size(); }
  // Bytes not yet written.
  size_t GetQueuedByteCount() const { return queued_byte_count_; }
  // Bytes written since construction.
  size_t GetTotalWrittenByteCount() const { return written_byte_count_; }

 private:
  // How much of the front string the limit lets one write take.
  size_t NextChunkSize() const;
  // One write, as write(2): of the front string as far as the limit lets it,
  // or, without a limit, of several strings.
  int WriteSome(const Socket& socket) const;
  void RemoveWritten(uint32_t bytes);

  uint16_t max_write_size_ = 0;
  // Oldest first. A list takes no memory while it is empty, and most are: there
  // is one for every connection.
  std::list<std::string> queue_;
  uint32_t front_offset_ = 0;  // bytes of the oldest string written already
  uint32_t written_byte_count_ = 0;
  uint32_t queued_byte_count_ = 0;
};

}  // namespace vantrel
