#pragma once

#include <stddef.h>

#include <memory>
#include <string>

#include "companion/link_protocol.h"
#include "reactor/reactor.h"
#include "reactor/write_buffer.h"

namespace vantrel {

// The connection to the device: its socket, the language spoken on it and the
// queue of what waits to be sent. Owned by its delegate, which may destroy it
// in OnLinkEnded().
//
// The queue has two bounds. Above kRoomBytes nothing more is taken from remote
// streams, since everything else would have to wait behind it. Above
// kFullBytes the device is no longer read either, so that a device which sends
// but does not read cannot fill the memory with answers.
class DeviceLink : public Socket {
 public:
  class Delegate {
   public:
    virtual ~Delegate() = default;
    // Anything but kReply and kFatal, which the link handles itself.
    virtual void OnLinkEvent(const LinkEvent& event) = 0;
    // The queue has become shorter, or the device wants something.
    virtual void OnLinkRoom() = 0;
    // The link is over; |by_error| also when this side gave it up. The last
    // act of every handler of the link: it may be destroyed.
    virtual void OnLinkEnded(bool by_error) = 0;
  };

  static constexpr size_t kRoomBytes = 64 * 1024;
  static constexpr size_t kFullBytes = 256 * 1024;

  // Takes ownership of the connected stream socket |fd|.
  DeviceLink(Reactor& reactor, int fd, std::unique_ptr<LinkProtocol> protocol,
             Delegate& delegate);
  ~DeviceLink() override;

  void OnReadReady() override;   // may destroy this
  void OnWriteReady() override;  // may destroy this
  void OnTick();                 // once a second; may destroy this

  // Once, before the reactor runs: handles what needs nothing to be received.
  void Begin() { DispatchEvents(); }

  const LinkProtocol& GetProtocol() const { return *protocol_; }
  // Queues one whole message. Dropped once the link is closing.
  void Send(std::string message);
  // Queues the next message of a transfer, if there is one.
  [[nodiscard]] bool SendNextBulk();
  bool HasRoom() const;
  bool IsFull() const;

  // Gives the link up: |farewell| is the last message, and the link ends when
  // the device has closed its side or after kCloseSeconds.
  void Close(const std::string& reason, const std::string& farewell);
  // The same for a process about to exit, without the reactor: waits at most
  // a second for the socket to take what is queued.
  void CloseNow(const std::string& reason);

 private:
  static constexpr int kCloseSeconds = 5;

  void DispatchEvents();
  void DispatchEvent(const LinkEvent& event);
  // Reads and drops what the device still sends, so that closing the socket
  // resets nothing that is on its way to the device.
  void ReadAndDiscard();
  void FinishWriting();
  void UpdateReading();
  void End(bool by_error, const char* why);

  Reactor& reactor_;
  const std::unique_ptr<LinkProtocol> protocol_;
  Delegate& delegate_;
  WriteBuffer queue_;
  bool closing_ = false;
  int closing_seconds_ = 0;
};

}  // namespace vantrel
