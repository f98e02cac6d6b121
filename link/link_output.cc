#include "link/link_output.h"

#include <utility>

#include "common/log.h"
#include "common/log_texts.h"
#include "common/monotonic_clock.h"

namespace vantrel {
namespace {

constexpr time_t kWriteTimeoutSeconds = 15;
// More than either protocol puts before a datagram.
constexpr size_t kDatagramHeaderBytes = 64;

}  // namespace

LinkOutput::LinkOutput(Socket& link, Reactor& reactor)
    : link_(link), reactor_(reactor) {}

void LinkOutput::Append(std::string message) {
  const bool was_empty = buffer_.IsEmpty();
  buffer_.Append(std::move(message));
  OnAppended(was_empty);
}

bool LinkOutput::HasRoomForDatagram(const HostAndPort& source,
                                    size_t payload_bytes) {
  const size_t size = payload_bytes + kDatagramHeaderBytes;
  if (datagrams_.HasRoom(source, size)) return true;
  if (drop_log_.Admit()) {
    LOGW("[B] Dropping datagrams: %zu bytes wait for the link.",
         datagrams_.GetBytes());
  }
  // Where nothing more is queued, nothing else would notice a dead link.
  EndIfStuck();
  return false;
}

void LinkOutput::OnAppended(bool was_empty) {
  if (was_empty) {
    reactor_.Register(link_, Reactor::kWrite);
    write_started_ = MonotonicNow();
  }
  EndIfStuck();
}

void LinkOutput::EndIfStuck() {
  if (write_started_.tv_sec == 0) return;
  if (MonotonicNow().tv_sec - write_started_.tv_sec >= kWriteTimeoutSeconds) {
    LOGE("[B] Terminating vantrel due to write timeout (%ds).",
         static_cast<int>(kWriteTimeoutSeconds));
    reactor_.Stop();
  }
}

void LinkOutput::DrainAndRest(bool keep_writing) {
  if (!buffer_.Drain(link_)) {
    LOGE(
        "[B] Unable to drain write buffer; assuming BT socket was "
        "disconnected.");
    reactor_.Stop();
    return;
  }
  datagrams_.OnWritten(
      static_cast<uint32_t>(buffer_.GetTotalWrittenByteCount()));
  write_started_ = MonotonicNow();
  if (buffer_.IsEmpty() && !keep_writing) {
    reactor_.Unregister(link_, Reactor::kWrite);
    write_started_ = {};
  }
}

void LinkOutput::Dump(std::stringstream& out, size_t rx_bytes) const {
  out << "    rx_bytes: " << rx_bytes << std::endl;
  out << "    tx_bytes: " << buffer_.GetTotalWrittenByteCount() << std::endl;
  out << VANTREL_TEXT_DUMP_QUEUED_BYTES << buffer_.GetQueuedByteCount()
      << std::endl;
  out << VANTREL_TEXT_DUMP_QUEUED_MESSAGES << buffer_.GetQueuedItemCount()
      << std::endl;
  out << "         ["
      << (reactor_.IsRegistered(link_, Reactor::kRead) ? 'R' : ' ')
      << (reactor_.IsRegistered(link_, Reactor::kWrite) ? 'W' : ' ') << "]"
      << std::endl;
}

}  // namespace vantrel
