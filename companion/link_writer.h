#pragma once

#include <stddef.h>

#include <optional>
#include <string>

#include "companion/flow_scheduler.h"
#include "companion/link_deadlines.h"
#include "companion/link_socket.h"
#include "support/pace_meter.h"

namespace vantrel {

// The sending side of a link: takes out of the scheduler what goes next, and
// writes it in pieces that the link carries in a few milliseconds. Whatever is
// more urgent then soon has its turn, on a slow link, too.
class LinkWriter {
 public:
  enum class Result {
    kDone,     // nothing waits any more
    kWaiting,  // the rest follows when the socket is writable
    kOver,     // the socket has ended or failed
  };

  // All of it outlives this.
  LinkWriter(LinkSocket& socket, FlowScheduler& scheduler,
             LinkDeadlines& deadlines);
  LinkWriter(const LinkWriter&) = delete;
  LinkWriter& operator=(const LinkWriter&) = delete;

  // Writes as much of what waits as the socket takes and one turn allows. Flows
  // that it asks may call it again, which does nothing.
  [[nodiscard]] Result Write();
  // To be called when the socket is writable, before Write().
  void OnWritable() { is_blocked_ = false; }
  // Forgets what was taken and not written, and gives its memory back.
  void Clear();

  size_t GetUnwrittenBytes() const { return out_.size() - out_offset_; }
  double GetPace() const { return pace_.GetPace(); }  // bytes per second

 private:
  // None when something was written and more may be.
  std::optional<Result> WriteNext();
  // None when |out_| has something to write.
  std::optional<Result> Fill();
  Result Block();
  void AdaptToPace();

  LinkSocket& socket_;
  FlowScheduler& scheduler_;
  LinkDeadlines& deadlines_;
  PaceMeter pace_;
  std::string out_;        // taken from the scheduler
  size_t out_offset_ = 0;  // bytes of it that are written
  size_t quantum_ = 0;     // bytes of one turn of a flow
  size_t write_size_ = 0;  // bytes after which a write is full
  bool is_writing_ = false;
  bool is_blocked_ = false;  // the socket takes no more
};

}  // namespace vantrel
