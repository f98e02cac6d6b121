#include "link_v2/frame.h"

#include <gmock/gmock.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "link_v2/crc32c.h"
#include "link_v2/frame_testing.h"
#include "link_v2/message_decoder.h"
#include "link_v2/message_encoder.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Whole frames as they cross the link: preamble, header, payload.
const char kClose[] = "564E 0700 0000 203D 08 07 F20C 02 08 07";
const char kWriteHello[] =
    "564E 0D00 0500 1D3D 08 08 10 CCF6C6D309 FA0C 02 08 07 68656C6C6F";
const char kUdp[] =
    "564E 2200 0100 3FDA 08 0A 10 C4CDB4E403 8A0D 17"
    " 0A 0A 0A 04 C0A8A7EF 10 C89C02 12 09 0A 04 C6336401 10 BB03 3F";
// Before 16384 and 16385 bytes of payload "aaa...".
const char kWriteLongest[] =
    "564E 0D00 0040 6DDA 08 08 10 97FF988C02 FA0C 02 08 07";
const char kWriteTooLong[] =
    "564E 0D00 0140 3124 08 08 10 F3BBCDBC08 FA0C 02 08 07";
// Before 16375 bytes "aaa...", which make a header of 16384 bytes.
const char kTeardownLongest[] = "564E 0040 0000 3CDC 08 01 C20C FA7F 0A F77F";

constexpr size_t kLongest = 16384;

// What one Write() appends; empty when it refuses.
std::string Encode(MessageEncoder* encoder, const std::string& payload = "") {
  WriteBuffer buffer;
  const bool written = encoder->Write(&buffer, payload);
  EXPECT_EQ(written ? 1u : 0u, buffer.GetQueuedItemCount());
  auto [fd, peer] = MakeSocketPair();
  EXPECT_TRUE(buffer.Drain(Socket(fd)));
  return ReadAll(*peer);
}

TEST(EncoderTest, RefusesWhatNoFrameHolds) {
  LogCapture log;
  MessageEncoder encoder;
  encoder.SetAsTcpWrite()->set_stream_id(7);
  EXPECT_EQ(Bytes(kWriteLongest) + std::string(kLongest, 'a'),
            Encode(&encoder, std::string(kLongest, 'a')));
  EXPECT_EQ("", Encode(&encoder, std::string(kLongest + 1, 'a')));
  EXPECT_THAT(log.Take(),
              ElementsAre("E: [ME] Message payload is too large 16385"));

  messages::Header header;
  header.set_type(messages::TEARDOWN);
  std::string* const reason = header.mutable_teardown()->mutable_reason();
  *reason = std::string(16375, 'a');
  encoder = MessageEncoder(header);
  EXPECT_EQ(Bytes(kTeardownLongest) + *reason, Encode(&encoder));
  *reason += 'a';
  encoder = MessageEncoder(header);
  EXPECT_EQ("", Encode(&encoder));
  EXPECT_THAT(log.Take(), IsEmpty());
}

// Each way to compute it equals the plain definition, at every alignment and
// however the bytes are split.
TEST(Crc32cTest, EqualsItsDefinition) {
  std::string bytes;
  for (uint32_t i = 0; i < 2000; ++i) {
    bytes += static_cast<char>(i * 2654435761u >> 24);
  }
  std::vector<Crc32cUpdate> updates = {UpdateCrc32cByTable};
  if (FindCrc32cInstruction() != nullptr) {
    updates.push_back(FindCrc32cInstruction());
  }
  const auto* const data = reinterpret_cast<const uint8_t*>(bytes.data());
  for (size_t begin = 0; begin < 9; ++begin) {
    for (size_t length = 0; begin + length <= bytes.size();
         length += length < 100 ? 1 : 131) {
      const uint32_t expected = BitwiseCrc32c(bytes.substr(begin, length));
      ASSERT_EQ(expected, Crc32c(data + begin, length)) << begin << length;
      for (const Crc32cUpdate update : updates) {
        const size_t half = length * begin / 9;
        ASSERT_EQ(expected, ~update(update(0xFFFFFFFF, data + begin, half),
                                    data + begin + half, length - half));
      }
    }
  }
  EXPECT_EQ(0xE3069283, Crc32c("123456789", 9));  // the usual check value
}

// Feeds |stream| in pieces of |piece| bytes as far as there is space; returns
// "type/payload" of each message.
std::vector<std::string> Feed(MessageDecoder* decoder,
                              const std::string& stream, size_t piece) {
  std::vector<std::string> received;
  bool is_copied = true;
  size_t fed = 0;
  while (fed < stream.size() && decoder->GetAvailableBufferSpace() > 0) {
    const size_t count = std::min(
        {piece, stream.size() - fed, decoder->GetAvailableBufferSpace()});
    // Both ways in, in turns; only the first takes more than the buffer holds.
    if (is_copied || count > kLongest / 2) {
      uint32_t consumed = 0;
      decoder->BufferData(stream.data() + fed, static_cast<uint32_t>(count),
                          &consumed);
      EXPECT_EQ(count, consumed);
    } else {
      memcpy(decoder->GetRoom(count), stream.data() + fed, count);
      decoder->OnFilled(count);
    }
    is_copied = !is_copied;
    fed += count;
    MessageDecoder::message_t message;
    while (decoder->GetAndClearMessage(&message)) {
      received.push_back(std::to_string(message.header.type()) + "/" +
                         message.payload);
    }
  }
  return received;
}

TEST(DecoderTest, YieldsTheSameMessagesHoweverTheStreamIsCut) {
  const std::string longest(kLongest, 'a');
  const std::string stream = Bytes(kWriteHello) + Bytes("564E 0000 0000 0000") +
                             Bytes(kClose) + Bytes(kWriteLongest) + longest +
                             Bytes(kTeardownLongest) + std::string(16375, 'a') +
                             Bytes("564E 0200 0000 2E0F 08 10") + Bytes(kUdp);
  for (const size_t piece : {1, 7, 8, 13, 8192, 100000}) {
    SCOPED_TRACE(piece);
    LogCapture log;
    MessageDecoder decoder;
    EXPECT_THAT(
        Feed(&decoder, stream, piece),
        ElementsAre("8/hello", "0/", "7/", "8/" + longest, "1/", "0/", "10/?"));
    EXPECT_EQ(kLongest, decoder.GetAvailableBufferSpace());
    EXPECT_THAT(log.Take(), IsEmpty());
  }
}

// ---- Damaged frames ----

TEST(DecoderTest, ADamagedFrameCostsOnlyItself) {
  const struct {
    std::string frame;
    const char* line;
  } cases[] = {
      {Bytes("564E 0140 0300 0000") + std::string(16385 + 3, 'a'),
       "'Header too large', param=16385"},
      {Bytes("564E FFFF FFFF 0000") + std::string(131070, 'a'),
       "'Header too large', param=65535"},
      {Bytes("564E 0D00 0500 1D3C 08 08 10 CCF6C6D309 FA0C 02 08 07") + "hello",
       "'Header checksum incorrect', param=13"},
      {Bytes("564E 0000 0100 0001 61"), "'Header checksum incorrect', param=0"},
      // Ends within a field.
      {Bytes("564E 0100 0400 3AD3 08 61616161"),
       "'Unable to parse header', param=1"},
      {Bytes(kWriteTooLong) + std::string(16385, 'a'),
       "'Payload too large', param=16385"},
      {Bytes("564E 0D00 0500 1D3D 08 08 10 CCF6C6D309 FA0C 02 08 07") + "hellp",
       "'Payload checksum incorrect', param=5"},
      // No checksum of the payload at all.
      {Bytes("564E 0700 0400 2BF1 08 08 FA0C 02 08 07") + "hell",
       "'Payload checksum incorrect', param=4"},
  };
  for (const auto& c : cases) {
    for (const size_t piece : {1, 5, 100000}) {
      SCOPED_TRACE(c.line + (" in pieces of " + std::to_string(piece)));
      LogCapture log;
      MessageDecoder decoder;
      EXPECT_THAT(Feed(&decoder, c.frame + Bytes(kWriteHello), piece),
                  ElementsAre("8/hello"));
      EXPECT_THAT(
          log.Take(),
          ElementsAre(std::string("W: [MD] Error decoding: ") + c.line));
      EXPECT_FALSE(decoder.HasFailed());
    }
  }
}

TEST(DecoderTest, AWrongMagicIsFinalAndTheSpaceRunsOut) {
  LogCapture log;
  MessageDecoder decoder;
  std::string stream = Bytes(kClose) + Bytes("564F 0700 0000 203D");
  EXPECT_THAT(Feed(&decoder, stream, 3), ElementsAre("7/"));
  EXPECT_TRUE(decoder.HasFailed());
  EXPECT_EQ(kLongest, decoder.GetAvailableBufferSpace());
  for (int i = 0; i < 2000; ++i) stream += Bytes(kClose);
  EXPECT_THAT(Feed(&decoder, stream, 1000), IsEmpty());
  EXPECT_EQ(0u, decoder.GetAvailableBufferSpace());
  EXPECT_THAT(log.Take(), ElementsAre("W: [MD] Error decoding: 'Wrong magic', "
                                      "param=20310"));
}

}  // namespace
}  // namespace vantrel
