#include "support/link_opening.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

using Sender = LinkOpening::Sender;

std::string Bytes(const std::string& hex) {
  std::string bytes;
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  for (size_t at = 0; at < digits.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return bytes;
}

TEST(LinkOpeningTest, NamesWhatIsWrong) {
  const std::string header =
      "05000000 0000 0A0B0C0D0E0F 00000000 00000000 DE03 0000";
  const struct {
    int protocol;
    Sender sender;
    const char* hex;
    const char* fault;
  } cases[] = {
      {20, Sender::kDevice, "564e 0900 0000 3795 0802ca0c0408011200", ""},
      {20, Sender::kCompanion, "564e 0700 0000 14d7 0803d20c020801 564e", ""},
      {20, Sender::kCompanion, "4e56 0007 0000 d714",
       "the companion sends the magic number of its first frame big-endian"},
      {20, Sender::kCompanion, "564e 0007 0000 14d7 0803d20c020801",
       "the companion sends the sizes of its first frame big-endian"},
      {20, Sender::kDevice, "564e 0009 0000 9537 0802ca0c0408011200",
       "the device sends the sizes of its first frame big-endian"},
      {20, Sender::kCompanion, "564e 0700 0000 d714 0803d20c020801",
       "the companion sends the checksum of its first header big-endian"},
      {20, Sender::kCompanion, "564e 0700 0000 1111 0803d20c020801",
       "the companion sends 0x1111 as checksum of its first header; the "
       "CRC-32C "
       "of those 7 bytes, its upper half exclusive-or its lower half, is "
       "0xD714"},
      {20, Sender::kDevice, "564e 0450 0000 0000",
       "the device announces a first header of 20484 bytes, which is too long; "
       "are its sizes big-endian?"},
      {20, Sender::kCompanion,
       "564e 0f00 0000 5f25 0801c20c0a0a08 6e6f20726f6f6d1b",
       "the companion ends the link: \"no room?\""},
      {20, Sender::kCompanion,
       "564e 0e00 0000 7181 0803d20c0908ffff031a03 6f6c64",
       "the companion refuses the handshake: \"old\""},
      {20, Sender::kCompanion, "48545450 2f312e31 20",
       "the companion begins with 48 54, which is no frame "
       "of "
       "protocol 20"},
      {20, Sender::kCompanion, "11 00000005 0000",
       "the companion speaks protocol 5"},
      {20, Sender::kDevice, "01 00000001 c6336450 0050 278b",
       "the device speaks protocol 1"},
      {5, Sender::kCompanion, "11 00000005 0000", ""},
      {5, Sender::kCompanion, "11 05000000 0000",
       "the companion sends the version of its handshake little-endian"},
      {5, Sender::kCompanion, "11 00000001 0000",
       "the companion sends version 1 in its handshake, not 5"},
      {5, Sender::kDevice, "564e 0900 0000", "the device speaks protocol 20"},
      {5, Sender::kDevice, "02 00000003", ""},  // its reader sees to that
      {1, Sender::kDevice, "05 00000000 01 00000001", ""},
      {1, Sender::kDevice, "10 00000005 0000", "the device speaks protocol 5"},
      {1, Sender::kCompanion, "01 00000001",
       "the companion begins with 01, which is no message of "
       "protocol 1"},
  };
  for (const auto& c : cases) {
    LinkOpening whole(c.protocol, c.sender), by_byte(c.protocol, c.sender);
    const std::string bytes = Bytes(c.hex);
    whole.Append(bytes);
    EXPECT_EQ(c.fault, whole.GetFault()) << c.hex;
    for (const char byte : bytes) by_byte.Append(std::string(1, byte));
    EXPECT_EQ(c.fault, by_byte.GetFault()) << c.hex;
    whole.Append("and so on");  // is not looked at
    EXPECT_EQ(c.fault, whole.GetFault());
  }
  for (const int protocol : {1, 5, 20}) {
    LinkOpening opening(protocol, Sender::kCompanion);
    opening.Append(Bytes(header).substr(0, 23));
    EXPECT_EQ("", opening.GetFault());
    opening.Append(Bytes(header).substr(23));
    EXPECT_EQ(
        "the companion sends a connection header, which has no place here; is "
        "it to be started without --header?",
        opening.GetFault());
  }
  LinkOpening cut(20, Sender::kDevice);
  EXPECT_EQ("", cut.GetFaultOfSilence());
  cut.Append(Bytes("564e 0009 0000 9537 0802ca0c04080112"));
  EXPECT_EQ("", cut.GetFault());
  EXPECT_EQ(
      "the device announces a first header of 2304 bytes and has sent 8; are "
      "its sizes big-endian?",
      cut.GetFaultOfSilence());
}

}  // namespace
}  // namespace vantrel
