#include "capture/connection_tracking.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/hex_testing.h"

namespace vantrel {
namespace {

// What a kernel (little-endian) was asked, and what it said, of a connection
// from port 40000 to 198.51.100.7:80 that was redirected to 127.0.0.1:8080.
const std::string kTrackingQuestion = Bytes(
    "48000000 0101 0100 07000000 00000000 02000000"
    "3400 0280 1400 0180 0800 0100 7F000001 0800 0200 C0A8A7EF"
    "1C00 0280 0500 0100 06000000 0600 0200 1F900000 0600 0300 9C400000");
const std::string kTrackingAnswer = Bytes(
    "A0000000 0001 0200 07000000 7E070000 02000000"
    "3400 0180 1400 0180 0800 0100 C0A8A7EF 0800 0200 C6336407"
    "1C00 0280 0500 0100 06000000 0600 0200 9C400000 0600 0300 00500000"
    "3400 0280 1400 0180 0800 0100 7F000001 0800 0200 C0A8A7EF"
    "1C00 0280 0500 0100 06000000 0600 0200 1F900000 0600 0300 9C400000"
    "0800 0300 000001AE 0800 0800 00000000 0C00 0900 9C6944D2"
    "0800 0B00 00000000");
// Error 2, with the question.
const std::string kRefusal =
    Bytes("5C000000 0200 0000 07000000 7E070000 FEFFFFFF") + kTrackingQuestion;
constexpr uint32_t kSequence = 7;
constexpr uint16_t kQuestionType = 0x0101;
constexpr uint16_t kAnswerType = 0x0100;

int Decode(const std::string& answer, tracked_connection_t* found) {
  // Without a byte behind it that may be read.
  const std::vector<char> exact(answer.begin(), answer.end());
  std::string_view body;
  const int error = DecodeNetlinkAnswer({exact.data(), exact.size()}, kSequence,
                                        kAnswerType, &body);
  if (error != 0) return error;
  return DecodeTrackingAnswer(body, found) ? 0 : EBADMSG;
}

TEST(ConnectionTracking, AsksAndUnderstandsTheKernel) {
  const std::string question = EncodeTrackingQuestion(
      Endpoint("7F000001", 8080), Endpoint("C0A8A7EF", 40000));
  EXPECT_EQ(kTrackingQuestion,
            EncodeNetlinkQuestion(kQuestionType, question, kSequence));
  tracked_connection_t found;
  ASSERT_EQ(0, Decode(kTrackingAnswer, &found));
  EXPECT_EQ("192.168.167.239:40000", found.source.ToString());
  EXPECT_EQ("198.51.100.7:80", found.destination.ToString());
  EXPECT_EQ(ENOENT, Decode(kRefusal, &found));

  std::string other = kTrackingAnswer;
  other[8] = 6;
  EXPECT_EQ(EAGAIN, Decode(other, &found));
  // The connection as it was made, with both its ends.
  const size_t needed = 20 + 52;
  for (size_t size = 0; size < kTrackingAnswer.size(); ++size) {
    EXPECT_EQ(size < needed ? EBADMSG : 0,
              Decode(kTrackingAnswer.substr(0, size), &found))
        << size;
  }
  // Any one byte wrong: nothing worse than a wrong answer.
  for (size_t i = 0; i < kTrackingAnswer.size(); ++i) {
    for (const char wrong : {'\0', '\1', '\x7F', '\xFF'}) {
      other = kTrackingAnswer;
      other[i] = wrong;
      static_cast<void>(Decode(other, &found));
    }
  }
}

}  // namespace
}  // namespace vantrel
