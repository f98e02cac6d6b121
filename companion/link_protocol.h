#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// What one message from the device means, whatever protocol brought it. Only
// the fields named beside a type are set.
struct LinkEvent {
  enum class Type {
    kReply,        // bytes: to be sent back at once
    kReady,        // the handshake is done; text: who the device says it is
    kConnect,      // stream_id, remote, uid
    kData,         // stream_id, bytes
    kClose,        // stream_id
    kDatagram,     // local, remote, bytes
    kPackageName,  // uid, text
    kNotice,       // text: something worth a line in the log
    kUnexpected,   // text: what came; the link goes on
    kFatal,        // the link cannot go on; text: why, bytes: the last message
  };
  static constexpr uint32_t kUnknownUid = 0xFFFFFFFF;

  Type type = Type::kUnexpected;
  uint32_t stream_id = 0;
  uint32_t uid = kUnknownUid;
  // The application's endpoint, without an address where the protocol does
  // not tell it, and the one that the application wants to reach. A remote
  // endpoint may have any family, also none: it is what the device sent.
  HostAndPort local;
  HostAndPort remote;
  std::string text;
  std::string bytes;
};

// One version of the link's language: turns bytes from the device into events
// and what the device is to be told into bytes. Pure, without any I/O. Feed it
// at most GetAvailableSpace() bytes, then take events until there is none:
// after that there is space again, unless a kFatal event came.
class LinkProtocol {
 public:
  virtual ~LinkProtocol() = default;

  virtual size_t GetAvailableSpace() const = 0;
  virtual void Feed(const char* data, size_t length) = 0;
  // False while more bytes are needed. Nothing follows a kFatal event.
  [[nodiscard]] virtual bool GetNextEvent(LinkEvent* out) = 0;

  // The next message of a transfer that the device asked for to measure the
  // link. False when none is running. Taken when the link has room, in turns
  // with the streams.
  [[nodiscard]] virtual bool GetNextBulk(std::string* out) = 0;

  virtual size_t GetMaxDatagramBytes() const = 0;
  // Whole messages. |bytes| are at most kMaxStreamChunkBytes, |payload| at
  // most GetMaxDatagramBytes() long.
  static constexpr size_t kMaxStreamChunkBytes = 16384;
  virtual std::string EncodeData(uint32_t stream_id,
                                 const std::string& bytes) const = 0;
  virtual std::string EncodeClose(uint32_t stream_id) const = 0;
  virtual std::string EncodeWriteAck(uint32_t stream_id) const = 0;
  virtual std::string EncodeDatagram(const HostAndPort& local,
                                     const HostAndPort& remote,
                                     const std::string& payload) const = 0;
  // |request| could not be delivered.
  virtual std::string EncodeUdpFailure(const HostAndPort& local,
                                       const HostAndPort& remote,
                                       const std::string& request) const = 0;
  virtual std::string EncodeNetworkState(int32_t network_id,
                                         bool is_metered) const = 0;
  // Empty where the protocol has no such message.
  virtual std::string EncodeTeardown(const std::string& reason) const = 0;
};

}  // namespace vantrel
