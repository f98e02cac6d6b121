#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <asio/io_context.hpp>
#include <optional>
#include <string>

#include "support/descriptor.h"
#include "support/state_record.h"

namespace vantrel {

// The connected socket of a link, of any kind: reads, writes, how much the
// kernel may hold of what was written, and how a peer that has gone is noticed.
class LinkSocket {
 public:
  enum class Result {
    kDone,    // at least one byte
    kWait,    // nothing to read, or no room
    kEnded,   // the peer has closed the link, or left it
    kFailed,  // GetReason() says why
  };

  LinkSocket(asio::io_context& loop, UniqueFd fd,
             Descriptor::Handler on_readable, Descriptor::Handler on_writable);
  LinkSocket(const LinkSocket&) = delete;
  LinkSocket& operator=(const LinkSocket&) = delete;
  ~LinkSocket() { Close(); }

  Result Read(char* buffer, size_t size, size_t* count);
  Result Write(const char* data, size_t size, size_t* count);
  // Whether the kernel holds so little that more should be written.
  bool HasRoom() const;
  int GetFd() const { return descriptor_->GetFd(); }
  void EndWriting();
  // Ends the link also where another process has its socket, too: BlueZ keeps
  // those that it has handed over. Nothing but GetReason() may be called
  // afterwards, and no handler is.
  void Close();
  // About how many bytes the kernel holds before HasRoom() says no.
  void SetHold(size_t bytes);

  void WaitReadable() { descriptor_->WaitReadable(); }
  void WaitWritable() { descriptor_->WaitWritable(); }
  const std::string& GetReason() const { return reason_; }
  // All bytes so far, also once it is closed.
  const traffic_t& GetTraffic() const { return traffic_; }

 private:
  Result Fail(int error);

  std::optional<Descriptor> descriptor_;  // none: closed
  size_t hold_ = 0;
  traffic_t traffic_;
  std::string reason_;
};

}  // namespace vantrel
