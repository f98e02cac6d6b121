#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <string>
#include <string_view>

#include "common/host_and_port.h"
#include "common/uid.h"
#include "companion/flow_scheduler.h"
#include "support/link_opening.h"

namespace vantrel {

// What a device says, one call a message. A remote endpoint may have any
// family, also none: it is what the device sent.
class DeviceMessages {
 public:
  virtual ~DeviceMessages() = default;

  // The handshake is done; |description| is what the device says of itself.
  virtual void OnReady(const std::string& description) = 0;
  virtual void OnConnect(uint32_t stream_id, const HostAndPort& remote,
                         uint32_t uid) = 0;
  virtual void OnData(uint32_t stream_id, std::string bytes) = 0;
  virtual void OnClose(uint32_t stream_id) = 0;
  // |local| has no address where the protocol does not tell it.
  virtual void OnDatagram(const HostAndPort& local, const HostAndPort& remote,
                          const std::string& payload) = 0;
  virtual void OnPackageName(uint32_t uid, const std::string& name) = 0;
  // Bytes that the device asked for to measure the link: to be sent until
  // |transfer| has no more.
  virtual void OnTransfer(std::unique_ptr<FlowScheduler::Flow> transfer) = 0;
  // Something worth a line in the log.
  virtual void OnNotice(const std::string& text) = 0;
  // A message that has no place here; the link goes on.
  virtual void OnUnexpected(const std::string& text) = 0;
  // The link cannot go on.
  virtual void OnFailure(const std::string& reason) = 0;
};

// One version of the link's language: turns the device's bytes into calls, and
// what the device is to be told into bytes. Does no I/O.
class LinkProtocol {
 public:
  // Streams are cut into messages of at most this many bytes: with its header
  // one fills what the device takes of version 2 in two reads, and no third.
  static constexpr size_t kMaxStreamChunkBytes = 16384 - 64;

  // |version| is 1, 5, 20 or LinkOpening::kAnyProtocol. |control| receives the
  // answers to messages, whole; it outlives this.
  LinkProtocol(int version, std::string* control)
      : opening_(version, LinkOpening::Sender::kDevice), control_(control) {}
  LinkProtocol(const LinkProtocol&) = delete;
  LinkProtocol& operator=(const LinkProtocol&) = delete;
  virtual ~LinkProtocol() = default;

  struct room_t {
    char* begin;
    size_t size;
  };
  // Where the device's next bytes are to be put; good until the next call.
  // There is room, unless OnFailure() was called, after HandleNext() has
  // returned false.
  room_t GetRoom() {
    room_ = MakeRoom();
    return room_;
  }
  // |count| bytes were put at the beginning of that.
  void OnFilled(size_t count) {
    assert(count <= room_.size);
    opening_.Append(std::string_view(room_.begin, count));
    OnReceived(count);
  }
  // Whether it is decided what is spoken. Until then only PutTeardown() may be
  // called of the messages.
  virtual bool IsKnown() const { return true; }
  virtual const LinkOpening& GetOpening() const { return opening_; }
  // Handles the next whole message. False when there is none, or after
  // OnFailure().
  [[nodiscard]] virtual bool HandleNext(DeviceMessages& device) = 0;

  virtual size_t GetMaxDatagramBytes() const = 0;
  // Each appends one whole message to |out|. |bytes| are at most
  // kMaxStreamChunkBytes, a datagram at most GetMaxDatagramBytes() long.
  virtual void PutData(std::string* out, uint32_t stream_id,
                       const std::string& bytes) = 0;
  virtual void PutClose(std::string* out, uint32_t stream_id) = 0;
  virtual void PutWriteAck(std::string* out, uint32_t stream_id) = 0;
  virtual void PutDatagram(std::string* out, const HostAndPort& local,
                           const HostAndPort& remote,
                           const std::string& payload) = 0;
  // |request| could not be delivered.
  virtual void PutUdpFailure(std::string* out, const HostAndPort& local,
                             const HostAndPort& remote,
                             const std::string& request) = 0;
  virtual void PutNetworkState(std::string* out, int32_t network_id,
                               bool is_metered) = 0;
  // Nothing where the protocol has no such message.
  virtual void PutTeardown(std::string* out, const std::string& reason) = 0;

 protected:
  std::string* GetControl() { return control_; }

 private:
  virtual room_t MakeRoom() = 0;
  virtual void OnReceived(size_t count) = 0;

  room_t room_ = {nullptr, 0};
  LinkOpening opening_;
  std::string* const control_;
};

}  // namespace vantrel
