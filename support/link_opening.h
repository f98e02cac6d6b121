#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

namespace vantrel {

// What one end of a link sends first, and what is wrong with it. Two programs
// that do not fit each other show it there: a connection header for nobody,
// another protocol, numbers in the wrong byte order, a checksum that is made in
// another way.
class LinkOpening {
 public:
  enum class Sender { kDevice, kCompanion };

  // Whatever the other end speaks: looks no further than to know that.
  static constexpr int kAnyProtocol = 0;

  // |protocol|, 1, 5, 20 or kAnyProtocol, is the one that the other end is to
  // speak.
  LinkOpening(int protocol, Sender sender)
      : protocol_(protocol), sender_(sender) {}

  // The next bytes of |sender|. Those after its first message are not looked
  // at. What is found is the same however they are cut.
  void Append(std::string_view bytes);

  // What the other end is to speak, or what it turned out to speak;
  // kAnyProtocol as long as that cannot be told.
  int GetProtocol() const { return protocol_; }
  // Whether what is told does not change any more.
  bool IsOver() const { return is_over_; }
  // What is wrong, in printable words that begin with the sender; empty as long
  // as nothing is, or it cannot be told yet.
  const std::string& GetFault() const { return fault_; }
  // Whether the fault is that the sender speaks another protocol.
  bool IsOtherProtocol() const { return is_other_protocol_; }
  // To be asked when nothing has followed for long: what the sender may have
  // done wrong with a first message that is not whole; empty when that cannot
  // be told.
  std::string GetFaultOfSilence() const;

 private:
  // Each looks at the beginning and calls Fail() or Finish(), or waits for
  // more.
  void Look();
  // Finishes then.
  bool HasFoundProtocol();
  void LookAtFrame();
  void LookAtSizes();
  void LookAtChecksum(size_t header_size);
  void LookAtHeader(size_t header_size);
  void LookAtV1();
  // As far as it came it may be a connection header.
  bool MayBeConnectionHeader() const;
  // Whether protocols 1 and 5 have such a message of the sender.
  bool IsV1Type(uint8_t type) const;

  void Fail(const std::string& what);
  void FailAsOther(const std::string& protocol);
  void Finish() { is_over_ = true; }
  std::string Name(const std::string& what) const;

  uint8_t GetByte(size_t at) const { return static_cast<uint8_t>(bytes_[at]); }
  // Of the first frame.
  uint16_t ComputeChecksum(size_t header_size) const;

  int protocol_;
  const Sender sender_;
  std::string bytes_;  // empty again when the rest is not looked at
  std::string fault_;
  bool is_other_protocol_ = false;
  bool is_over_ = false;
};

}  // namespace vantrel
